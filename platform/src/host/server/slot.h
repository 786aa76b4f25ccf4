// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>

#include "host/server/connection.h"

namespace VARN::Host {

// A place for one connection, and who may touch it. Several workers wait on one epoll set with edge triggers, so two of
// them may learn of the same connection, or of one that is gone by the time they look. The state word settles it
// without a lock: a worker becomes the owner, or leaves word that there is more to do, or sees that the event is stale.
//
// Memory order: taking ownership acquires and giving it up releases, so that each owner sees what the one before did.
class Slot {
public:
    // The place's current tenant; it goes into the event, so that an event of an earlier tenant is recognised.
    // Relaxed: read by whoever has just put the tenant there.
    uint32_t GetGeneration() const noexcept
    {
        return static_cast<uint32_t>(state_.load(std::memory_order_relaxed) >> PHASE_BITS);
    }

    // Lets a new tenant in; the place must be free. From now on events may make their receivers owners.
    // Release: whoever gets an event must see what was put there.
    void Open() noexcept { state_.fetch_or(IDLE, std::memory_order_release); }

    // Makes the calling thread the owner. False when there is nothing to do for it: the event was for an earlier
    // tenant, or another thread owns the place, which will now look again before it lets go. `hangUp`: the event says
    // so.
    bool Acquire(uint32_t generation, bool hangUp) noexcept
    {
        uint64_t state = state_.load(std::memory_order_relaxed);
        for (;;) {
            const uint64_t phase = state & PHASE_MASK;
            if (static_cast<uint32_t>(state >> PHASE_BITS) != generation || phase == FREE) {
                return false;
            }
            const uint64_t next = phase == IDLE ? OWNED : std::max(phase, hangUp ? OWNED_HUNG_UP : OWNED_AGAIN);
            // Release too: what is left as word must not move behind the owner's seeing it.
            if (state_.compare_exchange_weak(state, (state & ~PHASE_MASK) | next, std::memory_order_acq_rel,
                                             std::memory_order_relaxed)) {
                return phase == IDLE;
            }
        }
    }

    // The same for whoever does not come with an event: false, and no word left, unless nobody owns the place.
    bool AcquireIdle() noexcept
    {
        uint64_t state = state_.load(std::memory_order_relaxed);
        return (state & PHASE_MASK) == IDLE &&
               state_.compare_exchange_strong(state, (state & ~PHASE_MASK) | OWNED, std::memory_order_acq_rel,
                                              std::memory_order_relaxed);
    }

    // Gives ownership up. False when there is word of more to do: the caller is still the owner and has to look again,
    // and `hangUp` tells whether that was of a hang-up.
    bool Release(bool& hangUp) noexcept
    {
        uint64_t state = state_.load(std::memory_order_relaxed);
        for (;;) {
            const uint64_t phase = state & PHASE_MASK;
            const uint64_t next = phase == OWNED ? IDLE : OWNED;
            if (state_.compare_exchange_weak(state, (state & ~PHASE_MASK) | next, std::memory_order_acq_rel,
                                             std::memory_order_relaxed)) {
                hangUp = phase == OWNED_HUNG_UP;
                return phase == OWNED;
            }
        }
    }

    // The owner's last step: the tenant is gone, and later events for it are stale.
    void Free() noexcept
    {
        const uint64_t next = (uint64_t{GetGeneration()} + 1) << PHASE_BITS;
        state_.store(next & GENERATION_LIMIT, std::memory_order_release);
    }

    std::atomic<int64_t> deadline{0};        // see Connection
    std::unique_ptr<Connection> connection;  // touched by the owner only

private:
    static constexpr unsigned PHASE_BITS = 3;
    static constexpr uint64_t PHASE_MASK = 7;
    static constexpr uint64_t FREE = 0;
    static constexpr uint64_t IDLE = 1;
    static constexpr uint64_t OWNED = 2;
    static constexpr uint64_t OWNED_AGAIN = 3;    // an event came meanwhile
    static constexpr uint64_t OWNED_HUNG_UP = 4;  // one that says that the peer has closed its end
    static constexpr uint64_t GENERATION_LIMIT = (uint64_t{1} << (32 + PHASE_BITS)) - 1;

    std::atomic<uint64_t> state_{FREE};
};

}  // namespace VARN::Host
