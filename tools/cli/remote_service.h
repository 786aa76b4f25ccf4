// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "cli/output.h"
#include "security_privacy/security_privacy_service_intf.h"

namespace SecurityPrivacyTools {

using Service = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceIntf;

// Where the platform looks for the sockets' folder; empty: in /run/varn.
constexpr const char* DIRECTORY_VARIABLE = "VARN_ABILITY_DIR";

// What is known of a call that was answered.
struct Call {
    double findingMs = 0;  // how long it took to find the service
    double answeringMs = 0;
    bool isSent = false;
    int32_t status = 0;  // 0 or the service's status
    int64_t result = 0;  // what the service said, be it in its status or in its reply
    size_t replyBytes = 0;
};

// Finds the service and makes `request` call it once; what that returns is the result. Throws Failure unless there was
// an answer, whatever it says. An interface tells its caller little, -1 for a call that was refused, malformed or lost.
// This stands between proxy and remote object, where the status is seen, and takes the log lines: all go to standard
// error when they are wanted, else the last one of the platform is the reason of a failure.
Call Ask(const Program& program, const std::function<int64_t(Service&)>& request);

// Throws Failure unless the result is 0. `records` is how many came, for a call that brings some: an interface takes
// too many of them for none.
void Check(const Call& call, size_t records = 1);

// Sends a request that brings records: a member function of the interface whose last argument they are.
template <class Record, class Request, class... Arguments>
std::vector<Record> AskForRecords(const Program& program, Request request, const Arguments&... arguments)
{
    std::vector<Record> records;
    const Call call = Ask(program, [&](Service& service) { return (service.*request)(arguments..., records); });
    Check(call, records.size());
    return records;
}

}  // namespace SecurityPrivacyTools
