// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "security_privacy/permission_usage_record.h"

namespace SecurityPrivacyTools {

struct ChartOptions {
    int64_t begin = 0;  // the span to draw, in milliseconds since the epoch; 0: from the first use, to the last
    int64_t end = 0;
    size_t width = 80;
    bool isColoured = false;
};

// Draws a timeline on standard output: a row for each app, time from left to right, a letter where the app used an
// operation group, "!" where a use was denied. Title, axis and legend are part of it. `records` must not be empty.
void PrintChart(
    const std::vector<VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord>& records,
    const ChartOptions& options);

}  // namespace SecurityPrivacyTools
