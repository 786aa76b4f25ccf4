// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "host/server/connection_set.h"

namespace VARN::Host {

// Accepts connections, ends those that are over their time, tells of workers that are stuck, and gives the memory of a
// burst back: the work of one thread, which runs no requests and so never waits for one.
//
// Thread safety: `Run` is that thread's; any thread may call the others once `Open` has returned.
class Watcher {
public:
    // Both outlive the watcher.
    Watcher(ServiceContext& context, ConnectionSet& connections) : context_(context), connections_(connections) {}

    // Makes what wakes the thread. False, with the reason in errno, when the system refuses.
    bool Open();

    // Accepts from `listener` and watches until `Stop`.
    void Run(int listener);
    void Stop();

    // To be called by each worker before its first request, and when it ends. Throws std::bad_alloc.
    void Add(const Running& running);
    void Remove(const Running& running);
    size_t CountStuck() const noexcept { return stuck_.load(std::memory_order_relaxed); }

    // To be told of a connection's deadline before its owner gives it up; 0: it has none.
    void WatchFor(int64_t deadline);
    // To be told of each request that begins, with the time in milliseconds: soon after, the thread looks for workers
    // that are stuck and for memory to give back.
    void NoteRequest(int64_t now);

    // To be told when a connection has ended: its descriptor may be what accepting waits for.
    void ConnectionEnded();

private:
    void Wake() const;
    void AcceptSome(int listener);
    int64_t EndOverdue();
    int64_t LookForStuck(int64_t now);
    int64_t GiveMemoryBack(int64_t now);
    void EndForTime(Slot& slot, int64_t lateNanoseconds);

    ServiceContext& context_;
    ConnectionSet& connections_;
    UniqueFd wakeEvent_;
    // Relaxed: the write to the event orders it.
    std::atomic<bool> stopping_{false};

    // Written by the watching thread: when it looks at the deadlines next. Sequentially consistent, as the deadlines
    // are: a worker sets a deadline and then reads this, the watcher sets this and then reads the deadlines, so one of
    // the two sees the other.
    std::atomic<int64_t> nextLook_{0};
    // Relaxed: a worker that misses the change costs one pause.
    std::atomic<bool> acceptPaused_{false};

    struct Worker {
        const Running* running;
        size_t number;
        int64_t toldSince;  // of which request its line was written
    };
    Mutex mutex_;
    std::vector<Worker> workers_ GUARDED_BY(mutex_);
    size_t lastNumber_ GUARDED_BY(mutex_) = 0;
    std::atomic<size_t> stuck_{0};

    // The watching thread's own.
    int64_t lookUntil_ = 0;  // since a request has begun, look now and then
    bool trimIsDue_ = false;
};

}  // namespace VARN::Host
