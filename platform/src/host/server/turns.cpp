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
    for (auto user = users_.begin(); user != users_.end(); ++user) {
        Account& account = **user;
        size_t allowed = 0;
        if (context_.workers.Take(account, account.workers, 1, allowed) == Stock::Answer::TAKEN) {
            return Pop(user, account.queue.begin());
        }
    }
    return nullptr;
}

bool Turns::Remove(Slot& slot)
{
    const MutexLock lock(mutex_);
    for (auto user = users_.begin(); user != users_.end(); ++user) {
        std::list<Slot*>& queue = (*user)->queue;
        const auto place = std::find(queue.begin(), queue.end(), &slot);
        if (place != queue.end()) {
            Pop(user, place);
            return true;
        }
    }
    return false;
}

// The user goes to the end of the row, or, when it has no other, out of it.
Slot* Turns::Pop(std::list<Account*>::iterator user, std::list<Slot*>::iterator place)
{
    Account& account = **user;
    Slot& slot = **place;
    slot.turn.splice(slot.turn.end(), account.queue, place);
    std::list<Account*>& row = account.queue.empty() ? account.turn : users_;
    row.splice(row.end(), users_, user);
    account.waiting.fetch_sub(1);
    waiting_.fetch_sub(1);
    return &slot;
}

}  // namespace VARN::Host
