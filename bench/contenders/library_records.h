// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "bench/typed_client.h"
#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/gtoken_result.h"
#include "security_privacy/permission_usage_record.h"
#include "varn/remote_stub.h"

namespace bench {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

// The library's records with the values of the plain ones.
Permission::AppPermissionGroupInfo ToRecord(const Info& info);
Record::PermissionUsageRecord ToRecord(const Usage& usage);
GTokenResult ToRecord(const Row& row);

Usage ToPlain(const Record::PermissionUsageRecord& record);

// The id under which the library looks for its service.
constexpr int32_t kAbilityId = 65993;

// A service that lets everybody in and gives out the records of the workload. The interface has it fill a list of the
// stub's, so every request pays for a copy of them: no other contender does.
VARN::sptr<VARN::IPCObjectStub> MakeLibraryService(const Workload& workload);

}  // namespace bench
