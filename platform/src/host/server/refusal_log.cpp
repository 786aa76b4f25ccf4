// SPDX-License-Identifier: Apache-2.0
#include "host/server/refusal_log.h"

#include <cinttypes>

#include "host/server/clock.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

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

RefusalLog::~RefusalLog()
{
    for (size_t limit = 0; limit < LIMITS; ++limit) {
        if (entries_[limit].suppressed != 0) {
            PLATFORM_WARN("service %d: limit %s: %" PRIu64 " more were refused", id_, NAMES[limit],
                          entries_[limit].suppressed);
        }
    }
}

void RefusalLog::Report(Limit limit, const Caller& caller, uint64_t used, uint64_t allowed, const char* detail)
{
    const auto index = static_cast<size_t>(limit);
    refused_.fetch_add(1, std::memory_order_relaxed);
    uint64_t suppressed = 0;
    {
        const MutexLock lock(mutex_);
        Entry& entry = entries_[index];
        const int64_t now = SteadyMilliseconds();
        if (entry.last != 0 && now - entry.last < PAUSE_MILLISECONDS) {
            ++entry.suppressed;
            return;
        }
        entry.last = now;
        suppressed = entry.suppressed;
        entry.suppressed = 0;
    }
    PLATFORM_WARN(
        "service %d: limit %s: uid %u pid %d: used %" PRIu64 ", allowed %" PRIu64 "%s%s (%" PRIu64 " left out before)",
        id_, NAMES[index], caller.uid, caller.pid, used, allowed, *detail != '\0' ? ": " : "", detail, suppressed);
}

}  // namespace VARN::Host
