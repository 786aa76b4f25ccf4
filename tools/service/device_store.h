// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result.h"
#include "service/device_data.h"
#include "service/device_state.h"
#include "service/state_file.h"

namespace SecurityPrivacyExample {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResult;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::AppPermissionGroupInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::CheckedStateParameter;

// The device as it is now: the data that it started with, and the state that requests have changed since.
//
// A change copies the state, changes the copy, brings it to the disk and then puts it in the place of the old one. So a
// change happens whole or not at all, and a reader never waits for another one's change or disk.
//
// Thread safety: every operation may be called from any thread. Answers are result codes (common/result_codes.h); lists
// are appended to, and left alone when the answer is not RESULT_OK.
class DeviceStore {
public:
    // `path` names the state file; empty keeps changes in memory alone. Throws InputError when the file cannot be used.
    DeviceStore(DeviceData device, const std::string& path);

    const DeviceData& Device() const { return device_; }

    int32_t ListGroupsOfApp(const std::string& bundleName, int32_t userId,
                            const std::unordered_set<std::string>& interestedPermissionGroups,
                            std::vector<AppPermissionGroupInfo>& infos) const;
    int32_t ListAppsOfGroup(const std::string& permissionGroup, int32_t userId,
                            const std::unordered_set<std::string>& interestedBundleNames,
                            std::vector<AppPermissionGroupInfo>& infos) const;
    // `isChanged` tells whether the state or the flags differ from before.
    int32_t SetCheckedState(const std::string& bundleName, int32_t uid, const std::string& permissionGroup,
                            const CheckedStateParameter& parameter, bool& isChanged);

    int32_t Add(const std::vector<GTokenInfo>& gTokenInfos);
    int32_t Remove(const std::vector<std::string>& bundleNames);
    // A row for each of the bundles that has the policy, in the order of the names.
    std::vector<GTokenResult> Get(const std::string& policyName, const std::vector<std::string>& bundleNames) const;

private:
    using Snapshot = std::shared_ptr<const DeviceState>;

    Snapshot Current() const;
    int32_t Change(const std::function<int32_t(DeviceState&)>& change);
    bool HasUser(int32_t userId) const;

    const DeviceData device_;
    const std::unique_ptr<const StateFile> file_;  // null: in memory alone

    std::mutex changeMutex_;  // held for the whole of a change, the disk included; taken before stateMutex_

    mutable std::mutex stateMutex_;  // held for as long as a pointer takes to copy
    Snapshot state_;                 // guarded by stateMutex_
};

}  // namespace SecurityPrivacyExample
