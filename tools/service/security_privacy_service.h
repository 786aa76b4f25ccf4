// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/security_privacy_service_stub.h"
#include "service/access_policy.h"
#include "service/device_store.h"

namespace SecurityPrivacyExample {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResultWithRet;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;

// The service: it decides who may ask, and hands each request to the store. The operations run on the server's worker
// threads, several at a time; the locking is the store's. Result codes: common/result_codes.h.
class SecurityPrivacyService final
    : public VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceStub {
public:
    // `store` has to outlive the service.
    SecurityPrivacyService(DeviceStore& store, AccessPolicy policy);

    bool IsMessageCodeAllowed(uint32_t messageCode) override;

    int32_t GetAppPermissionGroupInfosByApp(const std::string& bundleName, int32_t userId,
                                            const std::unordered_set<std::string>& interestedPermissionGroups,
                                            std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos) override;
    int32_t GetAppPermissionGroupInfosByPermission(
        const std::string& permissionGroup, int32_t userId,
        const std::unordered_set<std::string>& interestedBundleNames,
        std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos) override;
    int32_t SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                              const std::string& permissionGroup,
                                              const CheckedStateParameter& checkedStateParameter,
                                              bool& returns) override;
    int32_t GetPermissionUsageSummary(const PermissionUsageRecordQuery& query,
                                      std::vector<PermissionUsageRecord>& records) override;
    int32_t GetPermissionUsageTimeline(const PermissionUsageRecordQuery& query,
                                       std::vector<PermissionUsageRecord>& records) override;
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos) override;
    // A caller who may not see fingerprints gets rows without them.
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string policyName,
                                              const std::vector<std::string>& bundleNames) override;
    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames) override;

private:
    DeviceStore& store_;
    const AccessPolicy policy_;
};

}  // namespace SecurityPrivacyExample
