// SPDX-License-Identifier: Apache-2.0
#include "host/server/accounts.h"

#include <unistd.h>

#include <algorithm>

namespace VARN::Host {

namespace {

// Of whatever there is, root and the service's own user have this part for themselves.
constexpr size_t RESERVE_PART = 16;

// What a user may always hold while anything is left: a connection and its successor, a request or reply of ordinary
// length in a buffer that had a longer one before, a worker.
constexpr size_t CONNECTION_FLOOR = 2;
constexpr size_t BYTE_FLOOR = size_t{2} * 1024 * 1024;
constexpr size_t WORKER_FLOOR = 1;

// Of the whole so much at the most is divided into shares; the rest is for floors. Eight users that come one after the
// other, and each take their share, take nearly all of what is divided.
constexpr size_t SharedOf(size_t whole)
{
    return whole - whole / 4;
}

// A reply may always be this long.
constexpr size_t REPLY_FLOOR = size_t{1} * 1024 * 1024;
constexpr size_t REPLY_PART = 4;

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

Accounts::Accounts(const AbilityServerOptions& options)
    : connections(Stock::Rules{options.maxConnections, options.maxConnections, options.maxConnectionsPerUser,
                               CONNECTION_FLOOR}),
      workers(Stock::Rules{std::min(options.workers, SharedOf(options.workers + options.maxSpareWorkers)),
                           options.workers + options.maxSpareWorkers, SIZE_MAX, WORKER_FLOOR}),
      options_(options),
      bytes_(Stock::Rules{SharedOf(options.maxBytes), options.maxBytes, SIZE_MAX, BYTE_FLOOR})
{
}

bool Accounts::TakeBytes(Account& account, Bytes kind, size_t amount, size_t& used, size_t& allowed) noexcept
{
    NoteUse(amount);
    std::atomic<size_t>& mine = kind == Bytes::REQUEST ? account.requestBytes : account.replyBytes;
    used = mine.fetch_add(amount) + amount;
    allowed = kind == Bytes::REQUEST ? options_.maxBegunRequestBytesPerUser : options_.maxWaitingReplyBytesPerUser;
    if (used <= allowed) {
        used = account.bytes.load() + amount;
        if (bytes_.Take(account, account.bytes, amount, allowed) == Stock::Answer::TAKEN) {
            return true;
        }
    }
    mine.fetch_sub(amount);
    return false;
}

void Accounts::GiveBytes(Account& account, Bytes kind, size_t amount) noexcept
{
    if (amount != 0) {
        NoteUse(amount);
        (kind == Bytes::REQUEST ? account.requestBytes : account.replyBytes).fetch_sub(amount);
        bytes_.Give(account.bytes, amount);
    }
}

size_t Accounts::GetReplyBound() const noexcept
{
    const size_t left = options_.maxBytes - std::min(options_.maxBytes, bytes_.CountHeld());
    const size_t bound = left / (REPLY_PART * std::max<size_t>(workers.CountHeld(), 1));
    return std::max(REPLY_FLOOR, std::min(bound, options_.maxWaitingReplyBytesPerUser));
}

bool Charge::GrowTo(size_t bytes, size_t& used, size_t& allowed) noexcept
{
    if (bytes > bytes_) {
        if (!accounts_.TakeBytes(account_, kind_, bytes - bytes_, used, allowed)) {
            return false;
        }
        bytes_ = bytes;
    }
    return true;
}

}  // namespace VARN::Host
