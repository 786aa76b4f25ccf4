// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "bench/typed_client.h"
#include "security_privacy/security_privacy_service_stub.h"

namespace bench {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

// The library's records with the values of the plain ones.
Permission::AppPermissionGroupInfo ToRecord(const Info& info);
Record::PermissionUsageRecord ToRecord(const Usage& usage);
GTokenResult ToRecord(const Row& row);

Usage ToPlain(const Record::PermissionUsageRecord& record);

// A service that lets everybody in and gives out the records it was made with. The interface has it fill a list of the
// stub's, so every request pays for a copy of them: no other contender does.
class LibraryService final : public SecurityPrivacyServiceStub {
public:
    explicit LibraryService(const Answers& answers);

    bool IsMessageCodeAllowed(uint32_t) override { return true; }

    int32_t GetAppPermissionGroupInfosByApp(const std::string&, int32_t, const std::unordered_set<std::string>&,
                                            std::vector<Permission::AppPermissionGroupInfo>& infos) override;
    int32_t GetAppPermissionGroupInfosByPermission(const std::string&, int32_t, const std::unordered_set<std::string>&,
                                                   std::vector<Permission::AppPermissionGroupInfo>& infos) override;
    int32_t SetAppPermissionGroupCheckedState(const std::string&, int32_t, const std::string&,
                                              const Permission::CheckedStateParameter&, bool& returns) override;
    int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery&,
                                      std::vector<Record::PermissionUsageRecord>& records) override;
    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery&,
                                       std::vector<Record::PermissionUsageRecord>& records) override;
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>&) override;
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string, const std::vector<std::string>&) override;
    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>&) override;

private:
    std::vector<Permission::AppPermissionGroupInfo> infos_;
    std::vector<Record::PermissionUsageRecord> usages_;
    GTokenResultWithRet rows_;
};

}  // namespace bench
