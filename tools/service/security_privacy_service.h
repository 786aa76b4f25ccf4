// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "security_privacy/security_privacy_service_stub.h"
#include "service/database.h"

namespace SecurityPrivacyTools {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResultWithRet;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::AppPermissionGroupInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::CheckedStateParameter;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;

// What all lines of the program carry.
constexpr int LOG_TYPE = 3;
constexpr uint32_t LOG_DOMAIN = 0xD0E0;
constexpr const char* LOG_TAG = "SERVICE";

// The service: it decides who may ask, and answers from the database. The operations run on the server's worker
// threads, several at a time. Result codes: common/result_codes.h. A list comes empty, and what is in it counts only
// when the answer is RESULT_OK; a database that fails is told in an error line.
class SecurityPrivacyService final
    : public VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceStub {
public:
    // `database` has to outlive the service. `changers` may change something, unless it is read-only, and see
    // fingerprints all the same.
    SecurityPrivacyService(Database& database, std::set<uid_t> changers, bool isReadOnly = false)
        : database_(database), changers_(std::move(changers)), isReadOnly_(isReadOnly)
    {
    }

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
    // What a query means:
    //
    //   lists    Each list that is not empty restricts to its elements; all of them have to be met.
    //   span     The events that begin in [begin, end), in milliseconds since the epoch; 0 leaves that side open. An
    //            event counts where it begins, so adjoining spans count it once.
    //   order    0 oldest first, 1 newest first, by the begin; equal ones by app, group and the other columns.
    //   limit    The first so many records in that order; 0 means all.
    //
    // Whatever the limit, reading stops one record past what an answer may carry: the library then refuses the answer
    // as too long. A summary of more than 65536 sums, whatever the limit, is RESULT_ANSWER_TOO_LONG.

    // One record per app, operation group, mode, app state and screen state: the times added up (no further than an
    // int32 goes), from the first begin to the last end.
    int32_t GetPermissionUsageSummary(const PermissionUsageRecordQuery& query,
                                      std::vector<PermissionUsageRecord>& records) override;
    // One record per event.
    int32_t GetPermissionUsageTimeline(const PermissionUsageRecordQuery& query,
                                       std::vector<PermissionUsageRecord>& records) override;
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos) override;
    // A row for each of the bundles that has the policy, in the order of the names. A caller who may not see
    // fingerprints gets rows without them. RESULT_ANSWER_TOO_LONG when the texts come to more than an answer may have.
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string policyName,
                                              const std::vector<std::string>& bundleNames) override;
    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames) override;

    // Stores the policies of a bundle, in a transaction of the caller's. A stored one keeps its fingerprint, which has
    // to be the same, takes the new version code, and a policy of the same name is replaced. Throws a ResultCode.
    static void AddPolicies(Connection& connection, const GTokenInfo& info);

private:
    // What `Database::Read` or `Database::Write` answers; RESULT_NOT_READ or RESULT_NOT_SAVED when it fails.
    int32_t Transact(int32_t (Database::*how)(const Connection::Work&), const Connection::Work& work);

    Database& database_;
    const std::set<uid_t> changers_;
    const bool isReadOnly_;
};

}  // namespace SecurityPrivacyTools
