// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "host/server/connection.h"
#include "host/server/slot.h"

namespace VARN::Host {

// The connections of a server, each in a place of its own, and the epoll set that tells their events. Places are made
// in blocks when they are first needed, so a high limit costs no memory.
//
// The attack that eviction stops: peers that connect and ask nothing hold all places. An idle connection is worth
// little, since its client makes a new one; so the longest idle one goes when a newcomer needs its place, and only
// where none is idle the newcomer is refused. It stops receiving first: what the peer had sent by then is answered.
//
// Thread safety: any thread may call anything, with the index of a place only its owner (see Slot) unless said.
class ConnectionSet {
public:
    // `context` outlives the set.
    explicit ConnectionSet(ServiceContext& context);
    ~ConnectionSet();

    // Makes the epoll set. False, with the reason in errno, when the system refuses.
    bool Open();
    // An event's data is `generation << 32 | index`.
    int GetEpoll() const noexcept { return epoll_.Get(); }

    // Takes an accepted socket in and watches it. Closes it, after a line, when its peer has no identity, a limit
    // leaves no place or the system refuses. Throws std::bad_alloc.
    void Admit(PeerSocket fd);

    // Has epoll report what the connection waits for. False when the system refuses.
    bool Arm(uint32_t index, Connection::Next next);
    // The same for a worker that stays: only a hang-up is reported, once, since that cannot be turned off.
    bool ArmForStay(uint32_t index);

    // Ends the connection, gives its place back, and then lets the peer see the end.
    void Close(uint32_t index);

    // Gives back a connection that was acquired without an event. An event that came meanwhile comes again.
    void LetGo(uint32_t index);

    // Any thread: places that were ever taken. Those below the number may be looked at.
    uint32_t CountUsed();

    // Any thread. Acquire: an event brings the index to a thread that did not make the place.
    Slot& operator[](uint32_t index) noexcept
    {
        return blocks_[index / BLOCK_SIZE].load(std::memory_order_acquire)[index % BLOCK_SIZE];
    }

private:
    static constexpr uint32_t BLOCK_SIZE = 64;

    Account* Enter(const Caller& caller, uint32_t& index);
    Account* TakePlace(Account& account, uint32_t& index) REQUIRES(mutex_);
    void Leave(uint32_t index);
    bool FindLongestIdle(const Account* user, uint32_t& index) REQUIRES(mutex_);
    bool Evict(uint32_t index);
    bool ArmFor(uint32_t index, uint32_t events);

    ServiceContext& context_;
    UniqueFd epoll_;
    const size_t maxBlocks_;
    const std::unique_ptr<std::atomic<Slot*>[]> blocks_;  // owned; null where no place was needed yet

    Mutex mutex_;
    std::vector<uint32_t> free_ GUARDED_BY(mutex_);  // of the used ones; has room for all, so that leaving cannot fail
    uint32_t used_ GUARDED_BY(mutex_) = 0;
};

}  // namespace VARN::Host
