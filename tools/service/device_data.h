// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/permission_usage_record.h"
#include "service/device_state.h"

namespace SecurityPrivacyExample {

// One app of one user, with the permission groups that it holds.
struct Installation {
    std::string bundleName;
    int32_t userId = 0;
    int32_t uid = 0;
    std::vector<VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::AppPermissionGroupInfo> groups;
};

// One use of an operation group, in milliseconds since the epoch.
struct UsageEvent {
    int32_t userId = 0;
    VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord record;
};

// What a device is at the start: read from a file once, never changed afterwards, so any thread may read it.
struct DeviceData {
    std::vector<int32_t> userIds;
    std::vector<std::string> permissionGroups;
    std::vector<Installation> installations;
    std::vector<UsageEvent> usageEvents;
    DeviceState state;       // the policies; no choices yet
    int64_t recordedAt = 0;  // when the usage was recorded
};

// Reads and checks a device file. Throws InputError, which says where the file is wrong.
DeviceData LoadDeviceData(const std::string& path);

// Moves all usage events by the same span, so that what happened until `recordedAt` has happened until `now`.
void ShiftUsage(DeviceData& device, int64_t now);

}  // namespace SecurityPrivacyExample
