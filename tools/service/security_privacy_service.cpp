// SPDX-License-Identifier: Apache-2.0
#include "service/security_privacy_service.h"

#include <utility>

#include "common/result_codes.h"
#include "service/usage_evaluation.h"
#include "varn/host/caller.h"
#include "varn/log.h"

namespace SecurityPrivacyExample {

namespace {

constexpr int LOG_TYPE = 3;
constexpr int LOG_WARN = 5;
constexpr uint32_t LOG_DOMAIN = 0xD0E0;

}  // namespace

using VARN::Host::CurrentCaller;

SecurityPrivacyService::SecurityPrivacyService(DeviceStore& store, AccessPolicy policy)
    : store_(store), policy_(std::move(policy))
{
}

bool SecurityPrivacyService::IsMessageCodeAllowed(uint32_t messageCode)
{
    const VARN::Host::Caller caller = CurrentCaller();
    if (policy_.IsAllowed(messageCode, caller.uid)) {
        return true;
    }
    // The library's own line says what was refused, but not to whom.
    VoLogPrint(LOG_TYPE, LOG_WARN, LOG_DOMAIN, "EXAMPLE", "user %u, process %d: %s is refused", caller.uid, caller.pid,
               MessageCode::ToString(messageCode).c_str());
    return false;
}

int32_t SecurityPrivacyService::GetAppPermissionGroupInfosByApp(
    const std::string& bundleName, int32_t userId, const std::unordered_set<std::string>& interestedPermissionGroups,
    std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return store_.ListGroupsOfApp(bundleName, userId, interestedPermissionGroups, appPermissionGroupInfos);
}

int32_t SecurityPrivacyService::GetAppPermissionGroupInfosByPermission(
    const std::string& permissionGroup, int32_t userId, const std::unordered_set<std::string>& interestedBundleNames,
    std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return store_.ListAppsOfGroup(permissionGroup, userId, interestedBundleNames, appPermissionGroupInfos);
}

int32_t SecurityPrivacyService::SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                                                  const std::string& permissionGroup,
                                                                  const CheckedStateParameter& checkedStateParameter,
                                                                  bool& returns)
{
    return store_.SetCheckedState(bundleName, uid, permissionGroup, checkedStateParameter, returns);
}

int32_t SecurityPrivacyService::GetPermissionUsageSummary(const PermissionUsageRecordQuery& query,
                                                          std::vector<PermissionUsageRecord>& records)
{
    return SummariseUsage(store_.Device().usageEvents, query, records);
}

int32_t SecurityPrivacyService::GetPermissionUsageTimeline(const PermissionUsageRecordQuery& query,
                                                           std::vector<PermissionUsageRecord>& records)
{
    return ListUsage(store_.Device().usageEvents, query, records);
}

int32_t SecurityPrivacyService::GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos)
{
    return store_.Add(gTokenInfos);
}

GTokenResultWithRet SecurityPrivacyService::GTokenPolicyGetPolicy(std::string policyName,
                                                                  const std::vector<std::string>& bundleNames)
{
    GTokenResultWithRet result;
    result.ret = RESULT_OK;
    result.gTokenResults = store_.Get(policyName, bundleNames);
    if (!policy_.MaySeeFingerprints(CurrentCaller().uid)) {
        for (GTokenResult& row : result.gTokenResults) {
            row.fingerprint.clear();
        }
    }
    return result;
}

int32_t SecurityPrivacyService::GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames)
{
    return store_.Remove(bundleNames);
}

}  // namespace SecurityPrivacyExample
