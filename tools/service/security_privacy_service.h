// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/security_privacy_service_stub.h"
#include "service/database.h"
#include "service/usage_queries.h"

namespace SecurityPrivacyTools {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResultWithRet;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::AppPermissionGroupInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::CheckedStateParameter;

// Who may change something, and see fingerprints.
struct AccessPolicy {
    std::vector<uid_t> changers;
    bool isReadOnly = false;  // refuses every change; the changers see fingerprints all the same
};

// The service: it decides who may ask, and answers from the database. The operations run on the server's worker
// threads, several at a time. Result codes: common/result_codes.h. Lists are appended to, and left alone when the
// answer is not RESULT_OK; a database that fails is told in an error line.
class SecurityPrivacyService final
    : public VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceStub {
public:
    // `database` has to outlive the service.
    SecurityPrivacyService(Database& database, AccessPolicy policy);

    // Reading requests are for everyone, changing ones for the changers. Codes that are no requests are let through:
    // the library answers that it does not know them, which tells a client more than a refusal.
    bool IsMessageCodeAllowed(uint32_t messageCode) override;

    int32_t GetAppPermissionGroupInfosByApp(const std::string& bundleName, int32_t userId,
                                            const std::unordered_set<std::string>& interestedPermissionGroups,
                                            std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos) override;
    int32_t GetAppPermissionGroupInfosByPermission(
        const std::string& permissionGroup, int32_t userId,
        const std::unordered_set<std::string>& interestedBundleNames,
        std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos) override;
    // `returns` tells whether the state or the flags differ from before.
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
    using Work = std::function<int32_t(Connection&)>;

    bool IsChanger(uid_t uid) const;
    int32_t Read(const Work& work);
    int32_t Write(const Work& work);

    Database& database_;
    const AccessPolicy policy_;
};

}  // namespace SecurityPrivacyTools
