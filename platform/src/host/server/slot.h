// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>

#include "host/server/connection.h"
#include "host/server/worker_pool.h"

namespace VARN::Host {

// A place for one connection, and who owns it. All workers wait on one epoll set with edge triggers, so two of them may
// get an event of the same connection, or of one that has ended since. One atomic word settles it without a lock:
//
//   FREE            no connection
//   IDLE            a connection that no thread owns: the next event makes its receiver the owner
//   OWNED           a thread owns it
//   OWNED_AGAIN     the same, and an event came meanwhile: the owner looks again before it gives the place up
//   OWNED_HUNG_UP   the same, and the event said that the peer has closed its end
//
// Beside the phase stands the generation, the number of the place's connection. An event carries it, so an event of an
// earlier connection is recognised.
//
// Memory order: `Acquire` acquires and `Release` releases, so each owner sees what the owner before did. An event that
// is only noted releases too: the owner that sees the note also sees what its writer did before.
class Slot {
public:
    // Relaxed: read by the thread that has just put the connection there, or that owns it.
    uint32_t GetGeneration() const noexcept
    {
        return static_cast<uint32_t>(state_.load(std::memory_order_relaxed) >> PHASE_BITS);
    }

    // FREE to IDLE: from now on an event makes its receiver the owner.
    // Release: the receiver must see the connection that was put there.
    void Open() noexcept { state_.fetch_or(IDLE, std::memory_order_release); }

    // Makes the calling thread the owner. False when there is nothing for it to do: the event is of an earlier
    // connection, or another thread owns the place and will look again. `hangUp`: the event says that the peer has
    // closed its end.
    bool Acquire(uint32_t generation, bool hangUp) noexcept
    {
        uint64_t state = state_.load(std::memory_order_relaxed);
        for (;;) {
            const uint64_t phase = state & PHASE_MASK;
            if (static_cast<uint32_t>(state >> PHASE_BITS) != generation || phase == FREE) {
                return false;
            }
            const uint64_t next = phase == IDLE ? OWNED : std::max(phase, hangUp ? OWNED_HUNG_UP : OWNED_AGAIN);
            if (state_.compare_exchange_weak(state, (state & ~PHASE_MASK) | next, std::memory_order_acq_rel,
                                             std::memory_order_relaxed)) {
                hasHungUp = phase == IDLE ? hangUp : hasHungUp;
                return phase == IDLE;
            }
        }
    }

    // Whether there is a connection that no thread owns. It may be otherwise a moment later.
    bool IsIdle() const noexcept { return (state_.load(std::memory_order_relaxed) & PHASE_MASK) == IDLE; }

    // The same as `Acquire` without an event: false, and nothing is noted, unless the connection is idle.
    bool AcquireIdle() noexcept
    {
        uint64_t state = state_.load(std::memory_order_relaxed);
        return (state & PHASE_MASK) == IDLE &&
               state_.compare_exchange_strong(state, (state & ~PHASE_MASK) | OWNED, std::memory_order_acq_rel,
                                              std::memory_order_relaxed);
    }

    // Gives ownership up. False when an event came meanwhile: the caller is still the owner and has to look again.
    bool Release() noexcept
    {
        uint64_t state = state_.load(std::memory_order_relaxed);
        for (;;) {
            const uint64_t phase = state & PHASE_MASK;
            const uint64_t next = phase == OWNED ? IDLE : OWNED;
            if (state_.compare_exchange_weak(state, (state & ~PHASE_MASK) | next, std::memory_order_acq_rel,
                                             std::memory_order_relaxed)) {
                if (phase == OWNED) {
                    return true;
                }
                hasHungUp = phase == OWNED_HUNG_UP;
                return false;
            }
        }
    }

    // The owner's last step: the connection is gone, and events of it are of an earlier one.
    void Free() noexcept
    {
        const uint64_t next = (uint64_t{GetGeneration()} + 1) << PHASE_BITS;
        state_.store(next & GENERATION_LIMIT, std::memory_order_release);
    }

    std::atomic<int64_t> deadline{0};  // see Connection

    // Only the owner touches these.
    std::unique_ptr<Connection> connection;
    uint32_t armedEvents = 0;  // what the connection is registered for
    bool hasHungUp = false;    // the event that made it the owner said that the peer has closed its end
    uint32_t nextWaiting = 0;  // see Turns
    Pace pace;

    Account* account = nullptr;  // whose connection it is; guarded by the lock of ConnectionSet

private:
    static constexpr unsigned PHASE_BITS = 3;
    static constexpr uint64_t PHASE_MASK = 7;
    static constexpr uint64_t FREE = 0;
    static constexpr uint64_t IDLE = 1;
    static constexpr uint64_t OWNED = 2;
    static constexpr uint64_t OWNED_AGAIN = 3;
    static constexpr uint64_t OWNED_HUNG_UP = 4;
    static constexpr uint64_t GENERATION_LIMIT = (uint64_t{1} << (32 + PHASE_BITS)) - 1;

    std::atomic<uint64_t> state_{FREE};
};

}  // namespace VARN::Host
