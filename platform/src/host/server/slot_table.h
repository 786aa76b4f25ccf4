// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/base/thread_safety.h"
#include "host/server/connection.h"
#include "host/server/refusal_log.h"
#include "host/server/slot.h"
#include "varn/host/ability_server.h"

namespace VARN::Host {

// The places for a server's connections, and how many of them each user holds. They are made some at a time when they
// are first needed, so that what may be and is not costs no memory.
//
// Thread safety: any thread may call anything; who may touch a slot is the slot's own affair.
class SlotTable {
public:
    explicit SlotTable(const AbilityServerOptions& options);
    ~SlotTable();
    SlotTable(const SlotTable&) = delete;
    SlotTable& operator=(const SlotTable&) = delete;

    // A place for a connection of `caller`, and where it is counted; null, after a line to `refusals`, when the limits
    // leave none. `Leave` gives both back.
    UserAccount* Enter(const Caller& caller, RefusalLog& refusals, uint32_t& index);
    void Leave(const Caller& caller, UserAccount& account, uint32_t index);

    // Places that were ever taken. Those below it may be looked at.
    uint32_t CountUsed();

    // Acquire: an event brings the number to a thread that did not make the place.
    Slot& operator[](uint32_t index) noexcept
    {
        return blocks_[index / BLOCK_SIZE].load(std::memory_order_acquire)[index % BLOCK_SIZE];
    }

private:
    static constexpr uint32_t BLOCK_SIZE = 64;

    const size_t maxConnections_;
    const size_t maxConnectionsPerUser_;
    const size_t maxBlocks_;
    const std::unique_ptr<std::atomic<Slot*>[]> blocks_;  // owned; null where no place was needed yet

    Mutex mutex_;
    std::vector<uint32_t> free_ GUARDED_BY(mutex_);  // of the used ones; has room for all, so that leaving cannot fail
    uint32_t used_ GUARDED_BY(mutex_) = 0;
    std::unordered_map<uid_t, std::unique_ptr<UserAccount>> accounts_ GUARDED_BY(mutex_);
};

}  // namespace VARN::Host
