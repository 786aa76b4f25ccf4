// SPDX-License-Identifier: Apache-2.0
#include "service/request_counters.h"

#include <algorithm>
#include <cinttypes>
#include <string>

#include "security_privacy/security_privacy_service_intf.h"

namespace SecurityPrivacyExample {
namespace {

using MessageCode = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceIntf::MessageCode;

double Milliseconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

void RequestCounters::Count(const VARN::Host::Transaction& transaction)
{
    const bool isKnown = transaction.code < PLACES && MessageCode::ToString(transaction.code) != "UNKNOWN";
    const std::lock_guard<std::mutex> lock(mutex_);
    Counter& counter = counters_[isKnown ? transaction.code : 0];
    ++counter.requests;
    counter.errors += transaction.status != 0 ? 1 : 0;
    counter.requestBytes += transaction.requestBytes;
    counter.replyBytes += transaction.replyBytes;
    counter.total += transaction.duration;
    counter.longest = std::max(counter.longest, transaction.duration);
}

void RequestCounters::Print(std::FILE* out) const
{
    static_assert(MessageCode::GTOKEN_POLICY_REMOVE_POLICY < PLACES, "every request code needs a place");
    std::array<Counter, PLACES> counters;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        counters = counters_;
    }
    std::fprintf(out, "%-44s %9s %7s %11s %11s %10s %8s\n", "request", "count", "errors", "bytes in", "bytes out",
                 "total ms", "max ms");
    for (uint32_t code = 0; code < PLACES; ++code) {
        const Counter& counter = counters[code];
        if (counter.requests != 0) {
            std::fprintf(out, "%-44s %9" PRIu64 " %7" PRIu64 " %11" PRIu64 " %11" PRIu64 " %10.3f %8.3f\n",
                         MessageCode::ToString(code).c_str(), counter.requests, counter.errors, counter.requestBytes,
                         counter.replyBytes, Milliseconds(counter.total), Milliseconds(counter.longest));
        }
    }
    std::fflush(out);
}

}  // namespace SecurityPrivacyExample
