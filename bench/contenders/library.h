// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/typed_client.h"
#include "security_privacy/contract.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/security_privacy_service_stub.h"

namespace bench {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

// The library's arguments with the values of the plain requests.
Permission::CheckedStateParameter ToParameter(const SetRequest& request);
Record::PermissionUsageRecordQuery ToQuery(const UsageRequest& request);

// The library's records from the plain ones, and back.
template <class Plain, class Record>
void Copy(const Plain& from, Record& to)
{
    Plain::Fields(to) = Plain::Fields(from);
}
void Copy(const Usage& from, Record::PermissionUsageRecord& to);

// Speaks through the client singleton to whatever service the ability manager finds; the directory is for the manager.
class LibraryPeer {
public:
    using InfoType = Permission::AppPermissionGroupInfo;
    using UsageType = Record::PermissionUsageRecord;
    using RowType = GTokenResult;

    explicit LibraryPeer(const std::string&) {}

    void Ask(const InfoRequest& request, std::vector<InfoType>& infos);
    void Ask(const SetRequest& request, bool& isSet);
    void Ask(const UsageRequest& request, std::vector<UsageType>& usages);
    void Ask(const RowRequest& request, std::vector<RowType>& rows);

    template <class Record, class Plain>
    static void Copy(const Record& from, Plain& to)
    {
        Plain::Fields(to) = Plain::Fields(from);
    }
    static void Copy(const UsageType& from, Usage& to);

private:
    SecurityPrivacyClient& client_ = SecurityPrivacyClient::GetInstance();
};

// A service that lets everybody in and gives out the records of the workload. The interface has it fill a list of the
// stub's, so every request pays for a copy of them: no other contender does but `floor-list`.
VARN::sptr<VARN::IPCObjectStub> MakeLibraryService(const Workload& workload);

}  // namespace bench
