// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host/base/thread_safety.h"
#include "host/server/accounts.h"
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
    // Both outlive this.
    Turns(Accounts& accounts, ConnectionSet& connections) : accounts_(accounts), connections_(connections) {}

    // Before a connection is served, by its owner. False: the queue owns it now, so the caller must not touch it any
    // more, but has to call `TakeNext`.
    bool Begin(uint32_t index);
    // When it has been served.
    void End(Account& account) noexcept { accounts_.workers.Give(account.workers, 1); }

    bool HasWaiting() const noexcept { return waiting_.load() != 0; }
    // The next connection whose user is within its share, begun, and owned by the caller. False when there is none.
    bool TakeNext(uint32_t& index);

    // Takes a connection out, whose peer has hung up: the caller owns it then. False when it does not wait, or is
    // another one in the same place by now.
    bool Remove(uint32_t index, uint32_t generation);

    // Whatever waits, also beyond a share, owned by the caller and not begun. False when nothing waits.
    bool TakeAny(uint32_t& index);

private:
    uint32_t PopFirst() REQUIRES(mutex_);
    void Rotate() REQUIRES(mutex_);

    Accounts& accounts_;
    ConnectionSet& connections_;
    std::atomic<size_t> waiting_{0};

    Mutex mutex_;
    // The users with waiting connections, in a row: the first is next.
    Account* first_ GUARDED_BY(mutex_) = nullptr;
    Account* last_ GUARDED_BY(mutex_) = nullptr;
    size_t users_ GUARDED_BY(mutex_) = 0;
};

}  // namespace VARN::Host
