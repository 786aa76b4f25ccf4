// SPDX-License-Identifier: Apache-2.0
#include "host/server/accounts.h"

#include <unistd.h>

#include <algorithm>

namespace VARN::Host {

namespace {

// Of whatever there is, root and the service's own user have this part for themselves.
constexpr size_t RESERVE_PART = 16;

}  // namespace

Account::Account(uid_t user) noexcept : uid(user), isTrusted(user == 0 || user == ::geteuid()) {}

Stock::Answer Stock::Take(const Account& account, std::atomic<size_t>& mine, size_t amount, size_t& allowed) noexcept
{
    const size_t after = mine.fetch_add(amount) + amount;
    const uint64_t change = amount + (after == amount && amount != 0 ? ONE_USER : 0);
    const uint64_t all = all_.fetch_add(change) + change;
    const size_t others = (all & HELD_MASK) - std::min<size_t>(after, all & HELD_MASK);
    const uint64_t users = std::max<uint64_t>(all >> USER_SHIFT, 1);
    const size_t whole = rules_.whole - (account.isTrusted ? 0 : rules_.whole / RESERVE_PART);
    const size_t shared = std::min(rules_.shared + extra_.load(std::memory_order_relaxed), whole);
    const size_t part = (shared - std::min(others, shared)) / users;
    const size_t share = std::min(std::max(part, rules_.floor), rules_.mostOfUser);
    allowed = std::min(share, whole - std::min(others, whole));
    if (after <= allowed) {
        return Answer::TAKEN;
    }
    Give(mine, amount);
    return after <= share ? Answer::NOTHING_LEFT : Answer::BEYOND_SHARE;
}

void Stock::Give(std::atomic<size_t>& mine, size_t amount) noexcept
{
    const size_t before = mine.fetch_sub(amount);
    all_.fetch_sub(amount + (before == amount && amount != 0 ? ONE_USER : 0));
}

}  // namespace VARN::Host
