// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "security_privacy/permission_usage_record.h"

namespace SecurityPrivacyTools {

// Draws a timeline on standard output, as wide as the terminal: a row for each app, time from left to right, a letter
// where the app used an operation group, "!" where a use was denied. Title, axis and legend are part of it. `records`
// must not be empty. The span is in milliseconds since the epoch; 0: from the first use, to the last.
void PrintChart(
    const std::vector<VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord>& records,
    int64_t begin, int64_t end);

}  // namespace SecurityPrivacyTools
