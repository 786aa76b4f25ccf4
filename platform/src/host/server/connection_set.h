// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/epoll.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <optional>
#include <thread>
#include <unordered_map>

#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "host/server/connection.h"
#include "host/server/worker_pool.h"

namespace VARN::Host {

// A place for one connection, and who owns it. All workers wait on one epoll set with edge triggers, so two of them may
// get an event of the same connection. One atomic word settles it without a lock:
//
//   FREE            no connection
//   NEW             one is being put there, and will be idle in a moment: its first event waits for that
//   IDLE            a connection that no thread owns: the next event makes its receiver the owner
//   OWNED           a thread owns it
//   OWNED_AGAIN     the same, and an event came meanwhile: the owner looks again before it gives the place up
//   OWNED_HUNG_UP   the same, and the event said that the peer has closed its end
//
// An event may be of an earlier connection in the same place. So it is no more than a reason to look: who looks without
// one finds nothing to receive, or no peer that has hung up.
//
// Memory order: `Acquire` acquires and `Release` releases, so each owner sees what the owner before did. An event that
// is only noted releases too: the owner that sees the note also sees what its writer did before. `Begin` and `Free` are
// relaxed, since a free place goes from one thread to another under the lock of ConnectionSet.
class Slot {
public:
    // FREE to NEW and then to IDLE, by the thread that puts a connection there. Release: the first owner must see it.
    void Begin() noexcept { phase_.store(NEW, std::memory_order_relaxed); }
    void Open() noexcept { phase_.store(IDLE, std::memory_order_release); }
    // By the owner of a connection that is gone.
    void Free() noexcept { phase_.store(FREE, std::memory_order_relaxed); }

    // Makes the calling thread, which has got an event, the owner. False when there is nothing for it to do: another
    // thread owns the place and will look again, or there is no connection. `hangUp`: the event says that the peer has
    // closed its end.
    bool Acquire(bool hangUp) noexcept
    {
        Phase phase = phase_.load(std::memory_order_relaxed);
        while (phase != FREE) {
            if (phase == NEW) {
                // An event that was noted instead would have to be brought about again, by another wake-up.
                std::this_thread::yield();
                phase = phase_.load(std::memory_order_relaxed);
                continue;
            }
            const Phase next = phase == IDLE ? OWNED : std::max(phase, hangUp ? OWNED_HUNG_UP : OWNED_AGAIN);
            if (phase_.compare_exchange_weak(phase, next, std::memory_order_acq_rel, std::memory_order_relaxed)) {
                if (phase == IDLE) {
                    hasHungUp = hangUp;
                }
                return phase == IDLE;
            }
        }
        return false;
    }

    // Whether there is a connection that no thread owns. It may be otherwise a moment later.
    bool IsIdle() const noexcept { return phase_.load(std::memory_order_relaxed) == IDLE; }

    // The same as `Acquire` without an event: false, and nothing is noted, unless the connection is idle.
    bool AcquireIdle() noexcept
    {
        Phase idle = IDLE;
        return phase_.compare_exchange_strong(idle, OWNED, std::memory_order_acq_rel, std::memory_order_relaxed);
    }

    // Gives ownership up. False when an event came meanwhile: the caller is still the owner and has to look again.
    bool Release() noexcept
    {
        Phase phase = OWNED;
        if (phase_.compare_exchange_strong(phase, IDLE, std::memory_order_acq_rel, std::memory_order_relaxed)) {
            return true;
        }
        hasHungUp = phase_.exchange(OWNED, std::memory_order_acq_rel) == OWNED_HUNG_UP;
        return false;
    }

    std::atomic<int64_t> deadline{0};  // see Connection

    // Only the owner touches these.
    std::optional<Connection> connection;
    std::optional<Connection::Next> armedFor;  // what epoll reports; none: it does not know the connection yet
    bool hasHungUp = false;                    // the event that made it the owner said that the peer has closed its end
    Pace pace;

    // Its element of a queue, which has it while the connection waits there; under the lock of Turns.
    std::list<Slot*> turn{this};

    // Changed by the owner, under the lock of ConnectionSet.
    Account* account = nullptr;  // whose connection it is
    Slot* nextFree = nullptr;

private:
    enum Phase : uint32_t { FREE, NEW, IDLE, OWNED, OWNED_AGAIN, OWNED_HUNG_UP };

    std::atomic<Phase> phase_{FREE};
};

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
