// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/security_privacy_service_intf.h"
#include "varn/message_parcel.h"
#include "varn/remote_proxy.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// The client's half of the interface: each operation is one request to the remote object and the reading of its reply.
// It keeps no state, so several threads may use one proxy.
class SecurityPrivacyServiceProxy : public IRemoteProxy<SecurityPrivacyServiceIntf> {
public:
    explicit SecurityPrivacyServiceProxy(const sptr<IRemoteObject>& impl)
        : IRemoteProxy<SecurityPrivacyServiceIntf>(impl)
    {
    }

    int32_t GetAppPermissionGroupInfosByApp(
        const std::string& bundleName, int32_t userId,
        const std::unordered_set<std::string>& interestedPermissionGroups,
        std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos) override;
    int32_t GetAppPermissionGroupInfosByPermission(
        const std::string& permissionGroup, int32_t userId,
        const std::unordered_set<std::string>& interestedBundleNames,
        std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos) override;
    int32_t SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                              const std::string& permissionGroup,
                                              const Permission::CheckedStateParameter& checkedStateParameter,
                                              bool& returns) override;
    int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery& query,
                                      std::vector<Record::PermissionUsageRecord>& records) override;
    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery& query,
                                       std::vector<Record::PermissionUsageRecord>& records) override;
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos) override;
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string policyName,
                                              const std::vector<std::string>& bundleNames) override;
    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames) override;

private:
    // The one step that all operations share. False, after an error line, when there is no remote object or it answers
    // with a status other than 0.
    bool SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply);

    // Registers this class with the broker registry while the library is loaded.
    static inline BrokerDelegator<SecurityPrivacyServiceProxy> delegator_;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
