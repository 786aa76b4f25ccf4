// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <list>

#include "host/base/thread_safety.h"
#include "host/server/connection_set.h"

namespace VARN::Host {

// Whose request runs next. A user within its share of the workers (see Stock) is served at once. Beyond it, its
// connections wait in its own queue, and a worker that has finished takes the users with waiting connections in turn.
//
// The attack it stops: a user sends requests that are slow to run over many connections. In the order of arrival
// everybody else would wait behind all of them; in turns it waits behind none.
//
// A connection is owned throughout (see Slot): by the worker that serves it, or by the queue.
//
// No connection is forgotten: `Begin` puts one into the queue and its caller then calls `TakeNext`; `End` gives the
// worker back and its caller then asks `HasWaiting`. These steps are sequentially consistent, so either the one in the
// queue is seen by the worker that ends, or the worker given back is seen by the caller of `Begin`.
//
// Thread safety: any thread may call anything.
class Turns {
public:
    // `context` outlives this.
    explicit Turns(ServiceContext& context) : context_(context) {}

    // Before a connection is served, by its owner. False: the queue owns it now, so the caller must not touch it any
    // more, but has to call `TakeNext`.
    bool Begin(Slot& slot);
    // When it has been served.
    void End(Account& account) noexcept { context_.workers.Give(account.workers, 1); }

    bool HasWaiting() const noexcept { return waiting_.load() != 0; }
    // The next connection whose user is within its share, begun, and owned by the caller. Null when there is none.
    Slot* TakeNext();

    // Takes a connection out: the caller owns it then, and it has not begun. False when it does not wait.
    bool Remove(Slot& slot);

private:
    void Pop(Slot& slot) REQUIRES(mutex_);

    ServiceContext& context_;
    std::atomic<size_t> waiting_{0};

    Mutex mutex_;
    std::list<Account*> users_ GUARDED_BY(mutex_);  // those with waiting connections: the first is next
};

}  // namespace VARN::Host
