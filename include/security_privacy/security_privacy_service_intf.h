// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/contract.h"
#include "security_privacy/export.h"
#include "varn/remote_broker.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

namespace Permission {
class AppPermissionGroupInfo;
class CheckedStateParameter;
}  // namespace Permission
namespace Record {
class PermissionUsageRecord;
class PermissionUsageRecordQuery;
}  // namespace Record
class GTokenInfo;
class GTokenResultWithRet;

// What the security-privacy service answers. The proxy implements it for clients by sending requests, a service by
// deriving from `SecurityPrivacyServiceStub`.
//
// Results: 0 is success. A proxy adds -1 (the request could not be sent, was refused or malformed, or the service went
// away) and, for usage requests, 401 (the query cannot be written). Every other value is the service's own; but of the
// operations that fill a list of records through a reference, a client sees any other result than 0 as -1.
// Lists that are filled are appended to, never cleared.
//
// Thread safety: every operation may be called from several threads at once; a service has to see to that itself.
class SECURITY_PRIVACY_API SecurityPrivacyServiceIntf : public IRemoteBroker {
public:
    VARN_DECLARE_INTERFACE_DESCRIPTOR(u"varn.appsecurityprivacy.securityprivacyserver.SecurityPrivacyServiceIntf")

    // The request codes.
    class SECURITY_PRIVACY_API MessageCode {
    public:
        // Never renumber and never reuse: a client and a service that are updated at different times rely on them.
        static constexpr uint32_t GET_APP_PERMISSION_GROUP_INFOS_BY_APP = 1;
        static constexpr uint32_t GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION = 2;
        static constexpr uint32_t SET_APP_PERMISSION_GROUP_CHECKED_STATE = 3;
        static constexpr uint32_t GET_PERMISSION_USAGE_RECORD_SUMMARY = 4;
        static constexpr uint32_t GET_PERMISSION_USAGE_RECORD_TIMELINE = 5;
        static constexpr uint32_t GTOKEN_POLICY_ADD_POLICY = 11;
        static constexpr uint32_t GTOKEN_POLICY_GET_POLICY = 12;
        static constexpr uint32_t GTOKEN_POLICY_REMOVE_POLICY = 13;

        // The constant's own name, or "UNKNOWN" for a code that has none.
        static std::string ToString(uint32_t code);
    };

    ~SecurityPrivacyServiceIntf() override;

    // The permission groups of one app for one user: those in `interestedPermissionGroups`, of which the first 50 in
    // the set's order are sent. At most 10000 records come back.
    virtual int32_t GetAppPermissionGroupInfosByApp(
        const std::string& bundleName, int32_t userId,
        const std::unordered_set<std::string>& interestedPermissionGroups,
        std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos) = 0;

    // The apps that hold one permission group for one user: those in `interestedBundleNames`, of which the first 10000
    // in the set's order are sent. At most 10000 records come back.
    virtual int32_t GetAppPermissionGroupInfosByPermission(
        const std::string& permissionGroup, int32_t userId,
        const std::unordered_set<std::string>& interestedBundleNames,
        std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos) = 0;

    // Changes the checked state of one app's permission group. `returns` is the service's second answer, and is filled
    // whatever the service's result is; it stays as it was when the request could not be sent.
    virtual int32_t SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                                      const std::string& permissionGroup,
                                                      const Permission::CheckedStateParameter& checkedStateParameter,
                                                      bool& returns) = 0;

    // Usage added up, for the query. A client accepts at most 10000 records and takes a longer answer for none.
    virtual int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery& query,
                                              std::vector<Record::PermissionUsageRecord>& records) = 0;

    // Single uses, for the query. A service that gives more than 10000 records makes the request fail.
    virtual int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery& query,
                                               std::vector<Record::PermissionUsageRecord>& records) = 0;

    // Sets policies for bundles: 1 to 10000 of them, each with at most 10000 policies.
    virtual int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos) = 0;

    // The value of the policy of that name for each of the bundles, at most 10000. The result carries its own code.
    virtual GTokenResultWithRet GTokenPolicyGetPolicy(std::string policyName,
                                                      const std::vector<std::string>& bundleNames) = 0;

    // Removes the policies of bundles, 1 to 10000 of them.
    virtual int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames) = 0;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
