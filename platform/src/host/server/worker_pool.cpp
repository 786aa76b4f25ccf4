// SPDX-License-Identifier: Apache-2.0
#include "host/server/worker_pool.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "varn/host/caller.h"

namespace VARN::Host {

namespace {

// Each costs some KiB. With one or two, a single client that may run anywhere more often finds its worker on another
// processor, which has to wake up first.
constexpr size_t FIRST_WORKERS = 4;

// A worker stays when so many visits in a row each came so soon after the one before.
constexpr uint32_t QUICK_VISITS = 8;
constexpr int64_t QUICK_MILLISECONDS = 10;

// So many workers must be busy for one to stay: itself and one more (rule 2).
constexpr size_t BUSY_WORKERS_TO_STAY = 2;

// Between two wake-ups by rule 3.
constexpr int64_t WAKE_MILLISECONDS = 1000;

bool IsBusy(Pace& pace, int64_t now)
{
    const bool isQuick = now - pace.lastVisit.load(std::memory_order_relaxed) <= QUICK_MILLISECONDS;
    pace.lastVisit.store(now, std::memory_order_relaxed);
    pace.quickVisits = isQuick ? pace.quickVisits + 1 : 0;
    return pace.quickVisits >= QUICK_VISITS;
}

}  // namespace

WorkerPool::WorkerPool(size_t usual, size_t spare, RefusalLog& refusals, std::function<void()> work)
    : usual_(usual), limit_(usual + spare), refusals_(refusals), work_(std::move(work))
{
}

WorkerPool::~WorkerPool()
{
    Stop();
}

void WorkerPool::Start()
{
    wakeEvent_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeEvent_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    {
        const MutexLock lock(mutex_);
        retired_.reserve(1);
        threads_.emplace_back(work_);
        workers_.store(1, std::memory_order_relaxed);
    }
    for (size_t workers = 1; workers < FIRST_WORKERS && AddWorker(); ++workers) {
    }
}

void WorkerPool::Stop()
{
    std::vector<std::thread> threads;
    {
        const MutexLock lock(mutex_);
        stopping_.store(true, std::memory_order_relaxed);
        threads.swap(threads_);
        std::move(retired_.begin(), retired_.end(), std::back_inserter(threads));
        retired_.clear();
    }
    if (wakeEvent_) {
        WakeStaying();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The last idle one stays, to be there for whatever comes.
bool WorkerPool::Retire() noexcept
{
    const MutexLock lock(mutex_);
    const auto self = std::find_if(threads_.begin(), threads_.end(), [](const std::thread& thread) {
        return thread.get_id() == std::this_thread::get_id();
    });
    if (threads_.size() <= usual_ || self == threads_.end() || idle_.load() == 0) {
        return false;
    }
    for (std::thread& before : retired_) {
        before.join();
    }
    retired_.clear();
    retired_.push_back(std::move(*self));
    threads_.erase(self);
    workers_.store(threads_.size(), std::memory_order_relaxed);
    return true;
}

// Rule 1.
void WorkerPool::LeaveIdle(bool hasWork) noexcept
{
    const bool wasLast = idle_.fetch_sub(1) == 1;
    if (wasLast && hasWork && !AddWorker() && staying_.load() != 0) {
        WakeStaying();
    }
}

// Rule 2.
bool WorkerPool::MayStay() const noexcept
{
    const size_t idle = idle_.load();
    return idle != 0 && idle + BUSY_WORKERS_TO_STAY <= workers_.load(std::memory_order_relaxed) &&
           !stopping_.load(std::memory_order_relaxed);
}

bool WorkerPool::Stay::GoesOn(int64_t begin, bool isAllowed) noexcept
{
    if (isStaying_) {
        // The one that wakes has to stop staying too, or its next wait would take the wake-up.
        return !pool_.WakeNowAndThen(begin) && isAllowed && pool_.MayStay();
    }
    if (!IsBusy(pace_, begin) || !isAllowed || !pool_.MayStay()) {
        return false;
    }
    pace_.quickVisits = 0;
    isStaying_ = true;
    pool_.staying_.fetch_add(1);
    return pool_.MayStay();
}

WorkerPool::Stay::~Stay()
{
    // The wake-up may have been meant for one that has found something to do before it got idle: then the next has to.
    if (isStaying_ && pool_.staying_.fetch_sub(1) > 1 && pool_.idle_.load() == 0) {
        pool_.WakeStaying();
    }
}

bool WorkerPool::Stay::AwaitInput(int fd, int milliseconds) const noexcept
{
    std::array<pollfd, 2> entries{{{fd, POLLIN, 0}, {pool_.wakeEvent_.Get(), POLLIN, 0}}};
    ::poll(entries.data(), entries.size(), milliseconds);
    if (entries[0].revents != 0) {
        // The wake-up, if there is one too, is for a worker that has nothing to do.
        return true;
    }
    if (entries[1].revents != 0) {
        eventfd_t ignored = 0;
        ::eventfd_read(pool_.wakeEvent_.Get(), &ignored);
        // At the end all have to wake: each wakes the next.
        if (pool_.stopping_.load(std::memory_order_relaxed)) {
            pool_.WakeStaying();
        }
    }
    return false;
}

// Rule 3.
bool WorkerPool::WakeNowAndThen(int64_t now) noexcept
{
    int64_t last = lastWake_.load(std::memory_order_relaxed);
    const bool isTime = now - last >= WAKE_MILLISECONDS && staying_.load() > 1 &&
                        lastWake_.compare_exchange_strong(last, now, std::memory_order_relaxed);
    if (isTime) {
        WakeStaying();
    }
    return isTime;
}

void WorkerPool::WakeStaying() const noexcept
{
    ::eventfd_write(wakeEvent_.Get(), 1);
}

// False when there are to be no more, or for now, after a line, cannot be.
bool WorkerPool::AddWorker() noexcept
{
    size_t workers = 0;
    try {
        const MutexLock lock(mutex_);
        workers = threads_.size();
        if (stopping_.load(std::memory_order_relaxed) || workers >= limit_) {
            return false;
        }
        threads_.emplace_back(work_);
        workers_.store(workers + 1, std::memory_order_relaxed);
        return true;
    } catch (const std::exception& exception) {
        // The system refuses, or memory runs out: the workers that there are go on.
        refusals_.Report(Limit::WORKERS, CurrentCaller(), workers, limit_, exception.what());
        return false;
    }
}

}  // namespace VARN::Host
