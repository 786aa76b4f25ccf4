// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "security_privacy/security_privacy_service_intf.h"
#include "support/record_cases.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

using MessageCode = SecurityPrivacyServiceIntf::MessageCode;

// The codes of all requests.
constexpr uint32_t CODES[] = {1, 2, 3, 4, 5, 11, 12, 13};

// What a request gave back. It starts with contents, so that "untouched" and "appended" can be told.
struct Outcome {
    int64_t result = 4711;
    std::vector<Permission::AppPermissionGroupInfo> groups = {Sample<Permission::AppPermissionGroupInfo>()};
    bool returns = true;
    std::vector<Record::PermissionUsageRecord> records = {Sample<Record::PermissionUsageRecord>()};
    std::vector<GTokenResult> rows;
};

// The arguments that are lists, or records with lists.
struct Arguments {
    std::unordered_set<std::string> interested = {"it's"};
    Record::PermissionUsageRecordQuery query = Sample<Record::PermissionUsageRecordQuery>();
    std::vector<GTokenInfo> gTokenInfos = {Sample<GTokenInfo>()};
    std::vector<std::string> bundleNames = {"app", "other"};
};

// Sends the request of `code` through a client or a proxy; lists of `outcome` are what it appends to.
template <class Target>
Outcome CallOperation(Target& target, uint32_t code, const Arguments& arguments = {}, Outcome outcome = {})
{
    if (code == MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP) {
        outcome.result = target.GetAppPermissionGroupInfosByApp("app", -100, arguments.interested, outcome.groups);
    } else if (code == MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION) {
        outcome.result =
            target.GetAppPermissionGroupInfosByPermission("group", 101, arguments.interested, outcome.groups);
    } else if (code == MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE) {
        outcome.result = target.SetAppPermissionGroupCheckedState(
            "app", 20, "group", Sample<Permission::CheckedStateParameter>(), outcome.returns);
    } else if (code == MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY) {
        outcome.result = target.GetPermissionUsageSummary(arguments.query, outcome.records);
    } else if (code == MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE) {
        outcome.result = target.GetPermissionUsageTimeline(arguments.query, outcome.records);
    } else if (code == MessageCode::GTOKEN_POLICY_ADD_POLICY) {
        outcome.result = target.GTokenPolicyAddPolicy(arguments.gTokenInfos);
    } else if (code == MessageCode::GTOKEN_POLICY_GET_POLICY) {
        GTokenResultWithRet results = target.GTokenPolicyGetPolicy("policy", arguments.bundleNames);
        outcome.result = results.ret;
        outcome.rows = std::move(results.gTokenResults);
    } else {
        outcome.result = target.GTokenPolicyRemovePolicy(arguments.bundleNames);
    }
    return outcome;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
