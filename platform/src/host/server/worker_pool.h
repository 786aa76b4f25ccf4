// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "host/server/refusal_log.h"

namespace VARN::Host {

// The threads that run a server's requests. There are a few to begin with. The last who waits, when it gets
// something to do, sees to it that somebody waits after it: it starts another worker, up to a limit.
//
// A worker may stay with a connection whose requests keep coming, and wait for that one alone, as long as others wait
// for the rest. So with a few busy clients each has a thread, which the scheduler brings to its client's processor,
// instead of meeting whichever comes. (A single one fares better with whichever comes.) When there are no more workers
// to start, the last who waits calls back those that stay, until one of them waits: no connection waits behind a worker
// that has nothing to do. Once a second somebody who is busy calls one back too, lest those count as busy who are not.
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

    // Throws what std::thread does when the system refuses the first one; for want of others it only writes a line. All
    // workers, also later ones, inherit the caller's signal mask.
    void Start();

    // Waits until all have returned from `work`: those that stay are called back, the owner sees to the others.
    void Stop();

    // Around a worker's wait for any connection. `hasWork`: it has got something to do.
    void BeginWait() noexcept { waiting_.fetch_add(1); }
    void EndWait(bool hasWork) noexcept;

    // Around a stay with one connection, which has to end when `MayStay` says no: to be asked before each wait.
    void BeginStay() noexcept { staying_.fetch_add(1); }
    void EndStay() noexcept;
    bool MayStay() const noexcept
    {
        const size_t waiting = waiting_.load();
        return waiting != 0 && waiting + 2 <= workers_.load(std::memory_order_relaxed) &&
               !stopping_.load(std::memory_order_relaxed);
    }

    // To be asked now and then while staying, with the time in milliseconds. True: another one was called back; the
    // stay has to end, or its next wait would take the call.
    bool CallIdleBack(int64_t now) noexcept;

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
    // Relaxed: to go by an old number is to stay a moment too long or too short.
    std::atomic<size_t> workers_{0};
    // Relaxed: who wins the exchange calls, and nothing hangs on it.
    std::atomic<int64_t> lastCall_{0};

    Mutex mutex_;
    std::vector<std::thread> threads_ GUARDED_BY(mutex_);
};

}  // namespace VARN::Host
