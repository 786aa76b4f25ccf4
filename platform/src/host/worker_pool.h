// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

#include "host/refusal_log.h"
#include "host/thread_safety.h"
#include "host/unique_fd.h"

namespace VARN::Host {

// The threads that run a server's requests. There is one worker to begin with. The last who waits, when it gets
// something to do, sees to it that somebody waits after it: it starts another worker, up to a limit.
//
// A worker may stay with a connection whose requests keep coming, and wait for that one alone, as long as others wait
// for the rest. So with a few busy clients each has a thread, which the scheduler brings to its client's processor,
// instead of meeting whichever comes. When there are no more workers to start, the last who waits calls back those that
// stay, until one of them waits: no connection waits behind a worker that has nothing to do.
//
// Thread safety: `Start` and `Stop` are for the owner, one after the other; the rest is for the workers.
class WorkerPool {
public:
    // At most `limit` threads, each of which runs `work` once. `refusals`, which outlives the pool, hears when the
    // system refuses one.
    WorkerPool(size_t limit, RefusalLog& refusals, std::function<void()> work);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Throws what std::thread does when the system refuses what it takes. Workers that are started later inherit the
    // first one's signal mask.
    void Start();

    // Waits until all have returned from `work`: those that stay are called back, the owner sees to the others.
    void Stop();

    // Around a worker's wait for any connection. `hasWork`: it has got something to do.
    void BeginWait() noexcept { waiting_.fetch_add(1); }
    void EndWait(bool hasWork) noexcept;

    // Around a stay with one connection, which has to end when `MayStay` says no.
    void BeginStay() noexcept { staying_.fetch_add(1); }
    void EndStay() noexcept;
    bool MayStay() const noexcept { return waiting_.load() != 0 && !stopping_.load(std::memory_order_relaxed); }

    // Waits while staying. False when there was nothing to read, for `milliseconds` (-1: no limit) or until the worker
    // was called back.
    bool AwaitInput(int fd, int milliseconds) const noexcept;

private:
    bool AddWorker() noexcept;
    void CallBack() const noexcept;

    const size_t limit_;
    RefusalLog& refusals_;
    const std::function<void()> work_;
    UniqueFd recall_;  // readable: somebody who stays is called back

    // Sequentially consistent: who stays counts itself and then looks whether somebody waits, the last who waits takes
    // itself out and then looks whether somebody stays, so one of the two sees the other.
    std::atomic<size_t> waiting_{0};
    std::atomic<size_t> staying_{0};

    // Relaxed: whoever misses the change finds out under the lock, or is called back.
    std::atomic<bool> stopping_{false};

    Mutex mutex_;
    std::vector<std::thread> threads_ GUARDED_BY(mutex_);
};

}  // namespace VARN::Host
