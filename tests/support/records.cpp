// SPDX-License-Identifier: Apache-2.0
#include "support/records.h"

#include <cstdint>

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

GTokenPolicy MakePolicy(const std::string& name, int64_t value)
{
    GTokenPolicy policy;
    policy.policyName = name;
    policy.policyValue = value;
    return policy;
}

}  // namespace

Permission::AppPermissionGroupInfo MakeAppPermissionGroupInfo()
{
    Permission::AppPermissionGroupInfo info;
    info.bundleName = "com.example.camera";
    info.uid = -20010017;
    info.permissionGroup = "group.LOCATION";
    info.checkedState = "100%s of 'use'";
    info.shownStates = {"always", "", "во время использования"};
    // One element: the text form follows the set's own order, which reading may change.
    info.disabledStates = {"never"};
    info.disabledReason = "set by %d admins";
    info.flags = INT64_MIN;
    return info;
}

Permission::CheckedStateParameter MakeCheckedStateParameter()
{
    Permission::CheckedStateParameter parameter;
    parameter.checkedState = "while in use";
    parameter.flagsMask = -1;
    parameter.flagsValue = INT64_MAX - 1;
    return parameter;
}

Record::PermissionUsageRecord MakePermissionUsageRecord()
{
    Record::PermissionUsageRecord record;
    record.SetBundleName("com.example.maps");
    record.SetUid(INT32_MIN);
    record.SetOperationGroup("op's %n group");
    record.SetTimes(INT32_MAX);
    record.SetOperationMode(-3);
    record.SetAppState(4);
    record.SetScreenState(-5);
    record.SetBeginTimestamp(INT64_MIN);
    record.SetEndTimestamp(INT64_MAX);
    return record;
}

Record::PermissionUsageRecordQuery MakePermissionUsageRecordQuery()
{
    Record::PermissionUsageRecordQuery query;
    query.SetBundleNames({"com.example.maps", "", "com.example.maps"});
    query.SetUserIds({100, 100, 0});
    query.SetOperationGroups({"LOCATION"});
    query.SetOperationModes({INT32_MIN, INT32_MAX});
    query.SetAppStates({});
    query.SetScreenStates({-7, 8});
    query.SetBeginTimestamp(INT64_MIN + 1);
    query.SetEndTimestamp(1700000000123);
    query.SetLimit(-50);
    query.SetOrder(INT32_MAX - 2);
    return query;
}

GTokenPolicy MakeGTokenPolicy()
{
    return MakePolicy("camera", -3);
}

GTokenInfo MakeGTokenInfo()
{
    GTokenInfo info;
    info.bundleName = "com.example.bank";
    info.fingerprint = std::string(SECRET) + ":11";
    info.versionCode = INT64_MIN + 2;
    info.policies = {MakePolicy("screenshot", 1), MakePolicy("", INT64_MAX), MakePolicy("over%slay", -2)};
    return info;
}

GTokenResult MakeGTokenResult()
{
    GTokenResult result;
    result.bundleName = "com.example.wallet";
    result.fingerprint = std::string(SECRET) + ":22";
    result.versionCode = INT64_MAX - 3;
    result.policyValue = -4;
    return result;
}

GTokenResultWithRet MakeGTokenResultWithRet()
{
    GTokenResultWithRet results;
    results.ret = -5000000000;
    results.gTokenResults = {MakeGTokenResult(), GTokenResult()};
    results.gTokenResults[1].bundleName = "com.example.other";
    results.gTokenResults[1].policyValue = INT64_MIN;
    return results;
}

std::vector<std::string> MakeNames(size_t count, const std::string& prefix)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < count; ++i) {
        names.push_back(prefix + std::to_string(i));
    }
    return names;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
