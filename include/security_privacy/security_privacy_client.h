// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/export.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"
#include "security_privacy/security_privacy_service_intf.h"
#include "varn/ref_base.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// What an application calls. Every request looks the service up, sends one message and waits for the reply; nothing is
// kept between requests, so the service may be restarted at any time.
//
// Results: as `SecurityPrivacyServiceIntf` describes them, with one addition that is easy to miss: when the service
// cannot be found, a request returns 0 and leaves what it should fill untouched. Only the log tells. A caller that
// needs to know uses `Connect` (security_privacy/connect.h). When memory runs out, a request returns -1; no exception
// leaves it.
//
// Time: once it is its turn, a request takes at most the 4 seconds of finding the service and the 8 of the call. A
// service that is an object of the same process answers on the caller's thread, and nothing ends its operation: then
// neither bound holds.
//
// Thread safety: requests may come from any thread and are handled one after the other.
class SECURITY_PRIVACY_API SecurityPrivacyClient {
public:
    // The only instance of the process, made on first use.
    static SecurityPrivacyClient& GetInstance();

    SecurityPrivacyClient(const SecurityPrivacyClient&) = delete;
    SecurityPrivacyClient& operator=(const SecurityPrivacyClient&) = delete;

    // Calls `callback`, which must not be empty, exactly once on this thread: with a proxy for the service, or with
    // null and an error line when it cannot be had. Requests of other threads wait until the callback returns; requests
    // from inside it are let in.
    void WithSystemAbilityProxy(const std::function<void(const sptr<SecurityPrivacyServiceIntf>&)>& callback);

    // The requests. Each does what the operation of its name does, see SecurityPrivacyServiceIntf.
    int32_t GetAppPermissionGroupInfosByApp(const std::string& bundleName, int32_t userId,
                                            const std::unordered_set<std::string>& interestedPermissionGroups,
                                            std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos);
    int32_t GetAppPermissionGroupInfosByPermission(
        const std::string& permissionGroup, int32_t userId,
        const std::unordered_set<std::string>& interestedBundleNames,
        std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos);
    int32_t SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                              const std::string& permissionGroup,
                                              const Permission::CheckedStateParameter& checkedStateParameter,
                                              bool& returns);
    int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery& query,
                                      std::vector<Record::PermissionUsageRecord>& records);
    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery& query,
                                       std::vector<Record::PermissionUsageRecord>& records);
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos);
    // An unreachable service gives a result with `ret` 0 and no rows.
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string policyName, const std::vector<std::string>& bundleNames);
    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames);

private:
    SecurityPrivacyClient() = default;
    ~SecurityPrivacyClient() = default;

    std::recursive_mutex mutex_;  // held for the whole of a request; there is nothing else to guard
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
