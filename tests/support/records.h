// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// What must never be seen in a log line or a text form: every fingerprint below contains it.
constexpr const char* SECRET = "5E:C4:E7";

// One record of each kind with telling values: all different, negative and extreme numbers, texts with a quote, a
// percent sign, several bytes to a letter, or nothing.
Permission::AppPermissionGroupInfo MakeAppPermissionGroupInfo();
Permission::CheckedStateParameter MakeCheckedStateParameter();
Record::PermissionUsageRecord MakePermissionUsageRecord();
Record::PermissionUsageRecordQuery MakePermissionUsageRecordQuery();
GTokenPolicy MakeGTokenPolicy();
GTokenInfo MakeGTokenInfo();
GTokenResult MakeGTokenResult();
GTokenResultWithRet MakeGTokenResultWithRet();

// "prefix0", "prefix1" and so on.
std::vector<std::string> MakeNames(size_t count, const std::string& prefix);

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
