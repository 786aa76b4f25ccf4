// SPDX-License-Identifier: Apache-2.0
#include "host/server/turns.h"

#include <algorithm>

namespace VARN::Host {

// Places and users come with a list element of their own, which is passed on from list to list: nothing here can fail.
bool Turns::Begin(Slot& slot)
{
    Account& account = *slot.account;
    size_t allowed = 0;
    if (context_.workers.Take(account, account.workers, 1, allowed) == Stock::Answer::TAKEN) {
        return true;
    }
    const MutexLock lock(mutex_);
    users_.splice(users_.end(), account.turn);
    account.queue.splice(account.queue.end(), slot.turn);
    account.waiting.fetch_add(1);
    waiting_.fetch_add(1);
    return false;
}

Slot* Turns::TakeNext()
{
    const MutexLock lock(mutex_);
    for (Account* account : users_) {
        size_t allowed = 0;
        if (context_.workers.Take(*account, account->workers, 1, allowed) == Stock::Answer::TAKEN) {
            Slot* slot = account->queue.front();
            Pop(*slot);
            return slot;
        }
    }
    return nullptr;
}

bool Turns::Remove(Slot& slot)
{
    const MutexLock lock(mutex_);
    if (!slot.turn.empty()) {
        return false;
    }
    Pop(slot);
    return true;
}

// The user goes to the end of the row, or, when it has no other, out of it.
void Turns::Pop(Slot& slot)
{
    Account& account = *slot.account;
    std::list<Slot*>& queue = account.queue;
    slot.turn.splice(slot.turn.end(), queue, std::find(queue.begin(), queue.end(), &slot));
    std::list<Account*>& row = queue.empty() ? account.turn : users_;
    row.splice(row.end(), users_, std::find(users_.begin(), users_.end(), &account));
    account.waiting.fetch_sub(1);
    waiting_.fetch_sub(1);
}

}  // namespace VARN::Host
