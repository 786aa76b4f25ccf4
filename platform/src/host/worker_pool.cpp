// SPDX-License-Identifier: Apache-2.0
#include "host/worker_pool.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <exception>
#include <utility>

#include "host/socket_folder.h"
#include "varn/host/caller.h"

namespace VARN::Host {

WorkerPool::WorkerPool(size_t limit, RefusalLog& refusals, std::function<void()> work)
    : limit_(limit), refusals_(refusals), work_(std::move(work))
{
}

WorkerPool::~WorkerPool()
{
    Stop();
}

std::string WorkerPool::Start()
{
    recall_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!recall_) {
        return "the workers cannot be called back: " + ErrorText(errno);
    }
    const MutexLock lock(mutex_);
    return AddThread();
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
        ::eventfd_write(recall_.Get(), 1);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void WorkerPool::EndWait()
{
    const bool isLast = waiting_.fetch_sub(1) == 1;
    if (isLast && (hasAll_.load(std::memory_order_relaxed) || !AddWorker()) && staying_.load() != 0) {
        ::eventfd_write(recall_.Get(), 1);
    }
}

bool WorkerPool::AwaitInput(int fd, int milliseconds) const
{
    std::array<pollfd, 2> entries{{{fd, POLLIN, 0}, {recall_.Get(), POLLIN, 0}}};
    ::poll(entries.data(), entries.size(), milliseconds);
    if (entries[1].revents != 0) {
        eventfd_t ignored = 0;
        ::eventfd_read(recall_.Get(), &ignored);
        // At the end all are called back: each passes it on.
        if (stopping_.load(std::memory_order_relaxed)) {
            ::eventfd_write(recall_.Get(), 1);
        }
    }
    return entries[0].revents != 0;
}

// Empty on success, else what is wrong.
std::string WorkerPool::AddThread()
{
    try {
        threads_.emplace_back(work_);
        return {};
    } catch (const std::exception& exception) {
        // The system refuses, or memory runs out.
        return std::string("a thread cannot be started: ") + exception.what();
    }
}

// False when there are to be no more, or for now, after a line, cannot be.
bool WorkerPool::AddWorker()
{
    size_t workers = 0;
    std::string problem;
    {
        const MutexLock lock(mutex_);
        workers = threads_.size();
        if (stopping_.load(std::memory_order_relaxed) || workers >= limit_) {
            hasAll_.store(true, std::memory_order_relaxed);
            return false;
        }
        problem = AddThread();
    }
    if (!problem.empty()) {
        refusals_.Report(Limit::WORKERS, CurrentCaller(), workers, limit_, problem.c_str());
    }
    return problem.empty();
}

}  // namespace VARN::Host
