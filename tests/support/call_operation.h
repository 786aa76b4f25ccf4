// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "support/records.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// The codes of all requests.
constexpr uint32_t CODES[] = {1, 2, 3, 4, 5, 11, 12, 13};

// What a request gave back. It starts with contents, so that "untouched" and "appended" can be told.
struct Outcome {
    int64_t result = 4711;
    std::vector<Permission::AppPermissionGroupInfo> groups = {MakeAppPermissionGroupInfo()};
    bool returns = true;
    std::vector<Record::PermissionUsageRecord> records = {MakePermissionUsageRecord()};
    std::vector<GTokenResult> rows;
};

// Sends the request of `code` through a client or a proxy, with the arguments of its family that MakeX() gives.
template <class Target>
Outcome CallOperation(Target& target, uint32_t code)
{
    Outcome outcome;
    if (code == 1) {
        outcome.result = target.GetAppPermissionGroupInfosByApp("app", -100, {"it's"}, outcome.groups);
    } else if (code == 2) {
        outcome.result = target.GetAppPermissionGroupInfosByPermission("group", 101, {"app"}, outcome.groups);
    } else if (code == 3) {
        outcome.result =
            target.SetAppPermissionGroupCheckedState("app", 20, "group", MakeCheckedStateParameter(), outcome.returns);
    } else if (code == 4) {
        outcome.result = target.GetPermissionUsageSummary(MakePermissionUsageRecordQuery(), outcome.records);
    } else if (code == 5) {
        outcome.result = target.GetPermissionUsageTimeline(MakePermissionUsageRecordQuery(), outcome.records);
    } else if (code == 11) {
        outcome.result = target.GTokenPolicyAddPolicy({MakeGTokenInfo()});
    } else if (code == 12) {
        const GTokenResultWithRet results = target.GTokenPolicyGetPolicy("policy", {"app", "other"});
        outcome.result = results.ret;
        outcome.rows = results.gTokenResults;
    } else {
        outcome.result = target.GTokenPolicyRemovePolicy({"app", "other"});
    }
    return outcome;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
