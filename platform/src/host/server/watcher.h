// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

#include "host/base/unique_fd.h"
#include "host/server/connection_set.h"

namespace VARN::Host {

// Accepts connections and ends those that are over their time: the work of one thread, which runs no requests and so
// never waits for one.
//
// Thread safety: `Run` is that thread's; any thread may call the others once `Open` has returned.
class Watcher {
public:
    // Both outlive the watcher.
    Watcher(ServiceContext& context, ConnectionSet& connections) : context_(context), connections_(connections) {}
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    // Makes what wakes the thread. False, with the reason in errno, when the system refuses.
    bool Open();

    // Accepts from `listener` and watches until `Stop`.
    void Run(int listener);
    void Stop();

    // To be told of a connection's deadline before its owner gives it up; 0: it has none.
    void WatchFor(int64_t deadline);

    // To be told when a connection has ended: its descriptor may be what accepting waits for.
    void ConnectionEnded();

private:
    void Wake() const;
    void AcceptSome(int listener);
    int64_t EndOverdue();
    void EndForTime(uint32_t index, int64_t lateNanoseconds);

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
};

}  // namespace VARN::Host
