// SPDX-License-Identifier: Apache-2.0
#include "service/status.h"

#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "security_privacy/security_privacy_service_intf.h"
#include "security_privacy/version.h"

namespace SecurityPrivacyTools {
namespace {

using MessageCode = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceIntf::MessageCode;
using nlohmann::ordered_json;

int64_t Microseconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

ordered_json Holdings(const VARN::Host::ServerStatistics& statistics)
{
    ordered_json users = ordered_json::array();
    for (const VARN::Host::UserStatistics& user : statistics.users) {
        users.push_back({{"uid", user.uid},
                         {"connections", user.connections},
                         {"requestBytes", user.requestBytes},
                         {"replyBytes", user.replyBytes},
                         {"workersAtWork", user.workersAtWork},
                         {"waiting", user.waiting},
                         {"refused", user.refused}});
    }
    return {{"connections", statistics.connections},
            {"requestBytes", statistics.requestBytes},
            {"replyBytes", statistics.replyBytes},
            {"workers", statistics.workers},
            {"workersAtWork", statistics.workersAtWork},
            {"workersStuck", statistics.workersStuck},
            {"waiting", statistics.waiting},
            {"refused", statistics.refused},
            {"users", users}};
}

}  // namespace

int64_t Now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void Status::Count(const VARN::Host::Transaction& transaction)
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

std::string Status::Document(const VARN::Host::AbilityServer& server) const
{
    static_assert(MessageCode::GTOKEN_POLICY_REMOVE_POLICY < PLACES, "every request code needs a place");
    std::array<Counter, PLACES> counters;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        counters = counters_;
    }
    ordered_json requests = ordered_json::array();
    for (uint32_t code = 0; code < PLACES; ++code) {
        const Counter& counter = counters[code];
        if (counter.requests != 0) {
            requests.push_back({{"name", MessageCode::ToString(code)},
                                {"code", code},
                                {"count", counter.requests},
                                {"errors", counter.errors},
                                {"bytesIn", counter.requestBytes},
                                {"bytesOut", counter.replyBytes},
                                {"totalUs", Microseconds(counter.total)},
                                {"longestUs", Microseconds(counter.longest)}});
        }
    }
    const ordered_json document{{"service", "security-privacy-service"},
                                {"version", SECURITY_PRIVACY_VERSION},
                                {"pid", ::getpid()},
                                {"startedAt", startedAt_},
                                {"time", Now()},
                                {"requests", requests},
                                {"server", Holdings(server.Statistics())}};
    return document.dump();
}

std::string Status::Line(int64_t time, const VARN::Host::Transaction& transaction)
{
    const ordered_json line{{"time", time},
                            {"uid", transaction.caller.uid},
                            {"pid", transaction.caller.pid},
                            {"name", MessageCode::ToString(transaction.code)},
                            {"code", transaction.code},
                            {"bytesIn", transaction.requestBytes},
                            {"bytesOut", transaction.replyBytes},
                            {"status", transaction.status},
                            {"durationUs", Microseconds(transaction.duration)}};
    return line.dump();
}

}  // namespace SecurityPrivacyTools
