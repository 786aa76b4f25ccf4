// SPDX-License-Identifier: Apache-2.0
#include "host/server/worker_pool.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "platform_log.h"

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

}  // namespace

WorkerPool::WorkerPool(ServiceContext& context, std::function<void(Worker&)> work)
    : context_(context), work_(std::move(work))
{
}

void WorkerPool::Start()
{
    wakeEvent_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeEvent_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    AddThread();
    while (Count() < FIRST_WORKERS && AddWorker()) {
    }
}

void WorkerPool::Stop()
{
    std::list<Worker> ending;
    {
        const MutexLock lock(mutex_);
        ending.splice(ending.end(), threads_);
        ending.splice(ending.end(), retired_);
    }
    WakeStaying();
    for (Worker& worker : ending) {
        worker.thread.join();
    }
}

// The last idle one stays, to be there for whatever comes.
bool WorkerPool::Retire(const Worker& self) noexcept
{
    const MutexLock lock(mutex_);
    const auto worker =
        std::find_if(threads_.begin(), threads_.end(), [&self](const Worker& other) { return &other == &self; });
    if (threads_.size() <= context_.options.workers || worker == threads_.end() || idle_.load() == 0) {
        return false;
    }
    for (Worker& before : retired_) {
        before.thread.join();
    }
    retired_.clear();
    retired_.splice(retired_.end(), threads_, worker);
    workers_.store(threads_.size(), std::memory_order_relaxed);
    return true;
}

// Rule 2.
bool WorkerPool::MayStay() const noexcept
{
    const size_t idle = idle_.load();
    return idle != 0 && idle + BUSY_WORKERS_TO_STAY <= workers_.load(std::memory_order_relaxed) &&
           !context_.stopping.load(std::memory_order_relaxed);
}

bool WorkerPool::Stay::GoesOn(int64_t begin, bool isAllowed) noexcept
{
    const bool isQuick = begin - pace_.lastVisit.load(std::memory_order_relaxed) <= QUICK_MILLISECONDS;
    pace_.lastVisit.store(begin, std::memory_order_relaxed);
    if (isStaying_) {
        // Rule 3. The one that wakes has to stop staying too, or its next wait would take the wake-up.
        int64_t last = pool_.lastWake_.load(std::memory_order_relaxed);
        if (begin - last >= WAKE_MILLISECONDS && pool_.staying_.load() > 1 &&
            pool_.lastWake_.compare_exchange_strong(last, begin, std::memory_order_relaxed)) {
            pool_.WakeStaying();
            return false;
        }
        return isAllowed && pool_.MayStay();
    }
    pace_.quickVisits = isQuick ? pace_.quickVisits + 1 : 0;
    if (pace_.quickVisits < QUICK_VISITS || !isAllowed || !pool_.MayStay()) {
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
        if (pool_.context_.stopping.load(std::memory_order_relaxed)) {
            pool_.WakeStaying();
        }
    }
    return false;
}

// False when there are to be no more. Throws when there can be none for now.
bool WorkerPool::AddThread()
{
    const MutexLock lock(mutex_);
    const AbilityServerOptions& options = context_.options;
    if (context_.stopping.load(std::memory_order_relaxed) ||
        threads_.size() >= options.workers + options.maxSpareWorkers) {
        return false;
    }
    std::list<Worker> added(1);
    added.front().thread = std::thread(work_, std::ref(added.front()));
    added.front().number = ++lastNumber_;
    threads_.splice(threads_.end(), added);
    workers_.store(threads_.size(), std::memory_order_relaxed);
    return true;
}

// The same, after a line: when the system refuses, or memory runs out, the workers that there are go on.
bool WorkerPool::AddWorker() noexcept
{
    try {
        return AddThread();
    } catch (const std::exception& exception) {
        context_.Refuse(nullptr, Limit::WORKERS, CurrentCaller(), Count(),
                        context_.options.workers + context_.options.maxSpareWorkers, exception.what());
        return false;
    }
}

int64_t WorkerPool::LookForStuck(int64_t now, int64_t later)
{
    const MutexLock lock(mutex_);
    const int64_t limit = context_.options.stuckAfter.count();
    int64_t next = INT64_MAX;
    size_t stuck = 0;
    for (Worker& worker : threads_) {
        const int64_t since = worker.since.load();
        if (since == 0) {
            continue;
        }
        const int64_t taken = now - since;
        if (taken < limit) {
            next = std::min(next, since + limit);
            continue;
        }
        ++stuck;
        next = std::min(next, later);
        if (worker.toldSince != since) {
            worker.toldSince = since;
            PLATFORM_WARN("service %d: worker %zu is stuck: request %u of uid %u runs for %lld ms", context_.id,
                          worker.number, worker.code.load(std::memory_order_relaxed),
                          worker.uid.load(std::memory_order_relaxed), static_cast<long long>(taken));
        }
    }
    stuck_.store(stuck, std::memory_order_relaxed);
    // The other spare ones are for users that have none at work.
    context_.workers.SetExtra(std::min(stuck, context_.options.maxSpareWorkers / 4));
    return next;
}

}  // namespace VARN::Host
