// SPDX-License-Identifier: Apache-2.0
#include "host/server/service_context.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "host/server/clock.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

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

// In the order of Limit.
constexpr std::array<const char*, 12> NAMES = {"connections",
                                               "connections per user",
                                               "request bytes",
                                               "request time in ms",
                                               "bytes of a reply",
                                               "reply time in ms",
                                               "waiting reply bytes per user",
                                               "begun request bytes per user",
                                               "protocol",
                                               "descriptors sent along",
                                               "descriptors of the process",
                                               "workers"};

constexpr int64_t PAUSE_MILLISECONDS = 1000;

}  // namespace

ServiceContext::ServiceContext(int32_t serviceId, sptr<IPCObjectStub> object, AbilityServerOptions all)
    : id(serviceId),
      stub(std::move(object)),
      options(std::move(all)),
      connections(Stock::Rules{options.maxConnections, options.maxConnections, options.maxConnectionsPerUser,
                               CONNECTION_FLOOR}),
      workers(Stock::Rules{std::min(options.workers, SharedOf(options.workers + options.maxSpareWorkers)),
                           options.workers + options.maxSpareWorkers, SIZE_MAX, WORKER_FLOOR}),
      bytes(Stock::Rules{SharedOf(options.maxBytes), options.maxBytes, SIZE_MAX, BYTE_FLOOR})
{
}

ServiceContext::~ServiceContext()
{
    for (size_t limit = 0; limit < LIMITS; ++limit) {
        if (refusals_[limit].suppressed != 0) {
            PLATFORM_WARN("service %d: limit %s: %" PRIu64 " more were refused", id, NAMES[limit],
                          refusals_[limit].suppressed);
        }
    }
}

void ServiceContext::Refuse(Account* account, Limit limit, const Caller& caller, uint64_t used, uint64_t allowed,
                            const char* detail)
{
    const auto index = static_cast<size_t>(limit);
    refused_.fetch_add(1, std::memory_order_relaxed);
    if (account != nullptr) {
        account->refused.fetch_add(1, std::memory_order_relaxed);
    }
    uint64_t suppressed = 0;
    {
        const MutexLock lock(mutex_);
        Refusals& refusals = refusals_[index];
        const int64_t now = SteadyMilliseconds();
        if (refusals.last != 0 && now - refusals.last < PAUSE_MILLISECONDS) {
            ++refusals.suppressed;
            return;
        }
        refusals.last = now;
        suppressed = std::exchange(refusals.suppressed, 0);
    }
    PLATFORM_WARN(
        "service %d: limit %s: uid %u pid %d: used %" PRIu64 ", allowed %" PRIu64 "%s%s (%" PRIu64 " left out before)",
        id, NAMES[index], caller.uid, caller.pid, used, allowed, *detail != '\0' ? ": " : "", detail, suppressed);
}

size_t ServiceContext::GetReplyBound() const noexcept
{
    const size_t left = options.maxBytes - std::min(options.maxBytes, bytes.CountHeld());
    const size_t bound = left / (REPLY_PART * std::max<size_t>(workers.CountHeld(), 1));
    return std::max(REPLY_FLOOR, std::min(bound, options.maxWaitingReplyBytesPerUser));
}

Charge::~Charge()
{
    if (bytes_ != 0) {
        context_.NoteUse(bytes_);
        OfKind().fetch_sub(bytes_);
        context_.bytes.Give(account_.bytes, bytes_);
    }
}

bool Charge::GrowTo(size_t bytes, const Caller& caller)
{
    if (bytes <= bytes_) {
        return true;
    }
    const size_t more = bytes - bytes_;
    size_t used = OfKind().fetch_add(more) + more;
    size_t allowed = kind_ == Limit::REPLY_BYTES ? context_.options.maxWaitingReplyBytesPerUser
                                                 : context_.options.maxBegunRequestBytesPerUser;
    if (used <= allowed) {
        used = account_.bytes.load() + more;
        if (context_.bytes.Take(account_, account_.bytes, more, allowed) == Stock::Answer::TAKEN) {
            bytes_ = bytes;
            return true;
        }
    }
    OfKind().fetch_sub(more);
    context_.Refuse(&account_, kind_, caller, used, allowed);
    return false;
}

}  // namespace VARN::Host
