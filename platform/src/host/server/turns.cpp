// SPDX-License-Identifier: Apache-2.0
#include "host/server/turns.h"

namespace VARN::Host {

bool Turns::Begin(uint32_t index)
{
    Slot& slot = connections_[index];
    Account& account = slot.connection->GetAccount();
    size_t allowed = 0;
    if (accounts_.workers.Take(account, account.workers, 1, allowed) == Stock::Answer::TAKEN) {
        return true;
    }
    const MutexLock lock(mutex_);
    if (account.waiting.load() == 0) {
        account.firstWaiting = index;
        account.nextInTurn = nullptr;
        (first_ == nullptr ? first_ : last_->nextInTurn) = &account;
        last_ = &account;
        ++users_;
    } else {
        connections_[account.lastWaiting].nextWaiting = index;
    }
    account.lastWaiting = index;
    account.waiting.fetch_add(1);
    waiting_.fetch_add(1);
    return false;
}

bool Turns::TakeNext(uint32_t& index)
{
    const MutexLock lock(mutex_);
    for (size_t user = users_; user != 0; --user) {
        size_t allowed = 0;
        if (accounts_.workers.Take(*first_, first_->workers, 1, allowed) == Stock::Answer::TAKEN) {
            index = PopFirst();
            return true;
        }
        Rotate();
    }
    return false;
}

// The first user goes to the end of the row.
void Turns::Rotate()
{
    last_->nextInTurn = first_;
    last_ = first_;
    first_ = first_->nextInTurn;
    last_->nextInTurn = nullptr;
}

bool Turns::TakeAny(uint32_t& index)
{
    const MutexLock lock(mutex_);
    const bool isThere = first_ != nullptr;
    if (isThere) {
        index = PopFirst();
    }
    return isThere;
}

bool Turns::Remove(uint32_t index, uint32_t generation)
{
    const MutexLock lock(mutex_);
    for (size_t user = users_; user != 0; --user) {
        for (size_t left = first_->waiting.load(); left != 0; --left) {
            const uint32_t next = first_->firstWaiting;
            if (next == index && connections_[index].GetGeneration() == generation) {
                PopFirst();
                return true;
            }
            // To the end of the user's queue.
            connections_[first_->lastWaiting].nextWaiting = next;
            first_->lastWaiting = next;
            first_->firstWaiting = connections_[next].nextWaiting;
        }
        Rotate();
    }
    return false;
}

// The next connection of the first user, which then goes to the end of the row.
uint32_t Turns::PopFirst()
{
    Account& account = *first_;
    const uint32_t index = account.firstWaiting;
    account.firstWaiting = connections_[index].nextWaiting;
    first_ = account.nextInTurn;
    if (account.waiting.fetch_sub(1) == 1) {
        --users_;
    } else {
        (first_ == nullptr ? first_ : last_->nextInTurn) = &account;
        last_ = &account;
    }
    account.nextInTurn = nullptr;
    waiting_.fetch_sub(1);
    return index;
}

}  // namespace VARN::Host
