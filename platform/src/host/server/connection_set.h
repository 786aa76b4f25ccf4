// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <unordered_map>

#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "host/server/connection.h"
#include "host/server/slot.h"

namespace VARN::Host {

// The connections of a server, each in a place of its own, whose they are, and the epoll set that tells their events.
// Places are made when they are first needed, so a high limit costs no memory, and stay where they are.
//
// The attack that eviction stops: peers that connect and ask nothing hold all places. An idle connection is worth
// little, since its client makes a new one; so the longest idle one goes when a newcomer needs its place, and only
// where none is idle the newcomer is refused. It stops receiving first: what the peer had sent by then is answered.
//
// Thread safety: any thread may call anything, with a place only its owner (see Slot), unless said.
class ConnectionSet {
public:
    // `context` outlives the set.
    explicit ConnectionSet(ServiceContext& context) : context_(context) {}

    // Makes the epoll set. False, with the reason in errno, when the system refuses.
    bool Open();
    int GetEpoll() const noexcept { return epoll_.Get(); }
    // The place that an event is of; null for an event that names none.
    Slot* SlotOf(const epoll_event& event) const noexcept
    {
        // The kernel hands the place over; this tells the same to the language.
        static_cast<void>(admitted_.load(std::memory_order_acquire));
        return static_cast<Slot*>(event.data.ptr);
    }

    // Takes an accepted socket in and watches it. Closes it, after a line, when its peer has no identity, a limit
    // leaves no place or the system refuses. Throws std::bad_alloc. For the watching thread.
    void Admit(PeerSocket fd);

    // The places that were ever taken. For the watching thread, or when it has ended.
    std::deque<Slot>& GetPlaces() noexcept { return places_; }

    // Has epoll report what the connection waits for. False when the system refuses.
    bool Arm(Slot& slot, Connection::Next next);

    // Ends the connection, gives its place back, and then lets the peer see the end.
    void Close(Slot& slot);

    // Gives back a connection that was acquired without an event. An event that came meanwhile comes again.
    void LetGo(Slot& slot);

    // What the users hold.
    ServerStatistics Describe();

private:
    Slot* Enter(const Caller& caller);
    void EraseIfGone(const Account& account) REQUIRES(mutex_);
    Slot* FindLongestIdle(const Account* user) REQUIRES(mutex_);
    void Evict(Slot& slot);

    ServiceContext& context_;
    UniqueFd epoll_;
    std::atomic<size_t> admitted_{0};  // release, when a place is ready for its events
    std::deque<Slot> places_;          // the watching thread's

    Mutex mutex_;
    Slot* free_ GUARDED_BY(mutex_) = nullptr;  // in a row
    std::unordered_map<uid_t, Account> accounts_ GUARDED_BY(mutex_);
};

}  // namespace VARN::Host
