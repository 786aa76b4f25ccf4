// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/eventfd.h>

#include <atomic>
#include <cstdint>

#include "host/base/unique_fd.h"
#include "host/server/connection_set.h"
#include "host/server/worker_pool.h"

namespace VARN::Host {

// Accepts connections, ends those that are over their time, has workers looked for that are stuck, and gives the memory
// of a burst back: the work of one thread, which runs no requests and so never waits for one.
//
// Thread safety: `Run` is that thread's; any thread may call the others once `Open` has returned.
class Watcher {
public:
    // All three outlive the watcher.
    Watcher(ServiceContext& context, ConnectionSet& connections, WorkerPool& workers)
        : context_(context), connections_(connections), workers_(workers)
    {
    }

    // Makes what wakes the thread. False, with the reason in errno, when the system refuses.
    bool Open();

    // Accepts from `listener` and watches until the service stops and `Wake` is called.
    void Run(int listener);
    void Wake() const { ::eventfd_write(wakeEvent_.Get(), 1); }

    // To be told of a connection's deadline before its owner gives it up; 0: it has none.
    void WatchFor(int64_t deadline);
    // To be told of each request that begins, with the time in milliseconds: soon after, the thread looks for workers
    // that are stuck and for memory to give back.
    void NoteRequest(int64_t now);

    // To be told when a connection has ended: its descriptor may be what accepting waits for.
    void ConnectionEnded();

private:
    void AcceptSome(int listener);
    int64_t EndOverdue();
    void EndForTime(Slot& slot, int64_t late);

    ServiceContext& context_;
    ConnectionSet& connections_;
    WorkerPool& workers_;
    UniqueFd wakeEvent_;

    // Written by the watching thread: when it looks at the deadlines next. Sequentially consistent, as the deadlines
    // are: a worker sets a deadline and then reads this, the watcher sets this and then reads the deadlines, so one of
    // the two sees the other.
    std::atomic<int64_t> nextLook_{0};
    // Relaxed: a worker that misses the change costs one pause.
    std::atomic<bool> acceptPaused_{false};

    // The watching thread's own.
    int64_t lookUntil_ = 0;         // since a request has begun, look now and then
    int64_t nextTrim_ = INT64_MAX;  // when memory is given back, unless much is used until then
};

}  // namespace VARN::Host
