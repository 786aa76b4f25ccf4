// SPDX-License-Identifier: Apache-2.0
#include "host/server/worker_pool.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "varn/host/caller.h"

namespace VARN::Host {

namespace {

// Each costs some KiB. With one or two, a single client that may run anywhere more often finds its worker on another
// processor, which has to wake up first.
constexpr size_t FIRST_WORKERS = 4;

constexpr int64_t CALL_MILLISECONDS = 1000;

}  // namespace

WorkerPool::WorkerPool(size_t limit, RefusalLog& refusals, std::function<void()> work)
    : limit_(limit), refusals_(refusals), work_(std::move(work))
{
}

WorkerPool::~WorkerPool()
{
    Stop();
}

void WorkerPool::Start()
{
    recall_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!recall_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    {
        const MutexLock lock(mutex_);
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
    }
    if (recall_) {
        CallBack();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void WorkerPool::EndWait(bool hasWork) noexcept
{
    const bool isLast = waiting_.fetch_sub(1) == 1;
    if (isLast && hasWork && !AddWorker() && staying_.load() != 0) {
        CallBack();
    }
}

// Who was called back may find something to do before it waits: then the next one has to.
void WorkerPool::EndStay() noexcept
{
    const bool othersStay = staying_.fetch_sub(1) > 1;
    if (othersStay && waiting_.load() == 0) {
        CallBack();
    }
}

bool WorkerPool::AwaitInput(int fd, int milliseconds) const noexcept
{
    std::array<pollfd, 2> entries{{{fd, POLLIN, 0}, {recall_.Get(), POLLIN, 0}}};
    ::poll(entries.data(), entries.size(), milliseconds);
    if (entries[0].revents != 0) {
        // The call, if there is one too, is for somebody who has nothing to do.
        return true;
    }
    if (entries[1].revents != 0) {
        eventfd_t ignored = 0;
        ::eventfd_read(recall_.Get(), &ignored);
        // At the end all are called back: each passes it on.
        if (stopping_.load(std::memory_order_relaxed)) {
            CallBack();
        }
    }
    return false;
}

bool WorkerPool::CallIdleBack(int64_t now) noexcept
{
    int64_t last = lastCall_.load(std::memory_order_relaxed);
    const bool isTime = now - last >= CALL_MILLISECONDS && staying_.load() > 1 &&
                        lastCall_.compare_exchange_strong(last, now, std::memory_order_relaxed);
    if (isTime) {
        CallBack();
    }
    return isTime;
}

void WorkerPool::CallBack() const noexcept
{
    ::eventfd_write(recall_.Get(), 1);
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
        // The system refuses, or memory runs out: those that there are go on.
        refusals_.Report(Limit::WORKERS, CurrentCaller(), workers, limit_, exception.what());
        return false;
    }
}

}  // namespace VARN::Host
