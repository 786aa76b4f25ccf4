// SPDX-License-Identifier: Apache-2.0
#include "host/server/slot_table.h"

namespace VARN::Host {

SlotTable::SlotTable(const AbilityServerOptions& options)
    : maxConnections_(options.maxConnections),
      maxConnectionsPerUser_(options.maxConnectionsPerUser),
      maxBlocks_((options.maxConnections + BLOCK_SIZE - 1) / BLOCK_SIZE),
      blocks_(new std::atomic<Slot*>[maxBlocks_]())
{
    free_.reserve(options.maxConnections);
}

SlotTable::~SlotTable()
{
    for (size_t block = 0; block < maxBlocks_; ++block) {
        delete[] blocks_[block].load(std::memory_order_relaxed);
    }
}

UserAccount* SlotTable::Enter(const Caller& caller, RefusalLog& refusals, uint32_t& index)
{
    size_t ofUser = 0;
    {
        const MutexLock lock(mutex_);
        std::unique_ptr<UserAccount>& account = accounts_[caller.uid];
        if (!account) {
            account = std::make_unique<UserAccount>();
        }
        ofUser = account->connections;
        const bool full = free_.empty() && used_ == maxConnections_;
        if (!full && ofUser < maxConnectionsPerUser_) {
            if (free_.empty()) {
                if (used_ % BLOCK_SIZE == 0) {
                    blocks_[used_ / BLOCK_SIZE].store(new Slot[BLOCK_SIZE], std::memory_order_release);
                }
                free_.push_back(used_++);
            }
            ++account->connections;
            index = free_.back();
            free_.pop_back();
            return account.get();
        }
        if (ofUser == 0) {
            accounts_.erase(caller.uid);
        }
    }
    if (ofUser >= maxConnectionsPerUser_) {
        refusals.Report(Limit::CONNECTIONS_PER_USER, caller, ofUser, maxConnectionsPerUser_);
    } else {
        refusals.Report(Limit::CONNECTIONS, caller, maxConnections_, maxConnections_);
    }
    return nullptr;
}

void SlotTable::Leave(const Caller& caller, UserAccount& account, uint32_t index)
{
    const MutexLock lock(mutex_);
    free_.push_back(index);
    if (--account.connections == 0) {
        accounts_.erase(caller.uid);
    }
}

uint32_t SlotTable::CountUsed()
{
    const MutexLock lock(mutex_);
    return used_;
}

}  // namespace VARN::Host
