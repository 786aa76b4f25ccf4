// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "common/json_input.h"
#include "security_privacy/gtoken_info.h"

namespace SecurityPrivacyExample {

// Which permission group of which app.
struct GroupKey {
    std::string bundleName;
    int32_t uid = 0;
    std::string permissionGroup;

    friend bool operator<(const GroupKey& left, const GroupKey& right)
    {
        return std::tie(left.bundleName, left.uid, left.permissionGroup) <
               std::tie(right.bundleName, right.uid, right.permissionGroup);
    }
};

// What a client has chosen for a group, in place of what the device data says.
struct GroupChoice {
    std::string checkedState;
    int64_t flags = 0;
};

// The policies of one bundle.
struct BundlePolicies {
    std::string fingerprint;  // sensitive: never logged or printed
    int64_t versionCode = 0;
    std::map<std::string, int64_t> values;
};

// Everything that requests can change; a plain value. Bundles are shared between copies, so that a copy is cheap even
// with thousands of policies: they are replaced, never changed.
struct DeviceState {
    std::map<GroupKey, GroupChoice> groupChoices;
    std::map<std::string, std::shared_ptr<const BundlePolicies>> bundles;
};

// The result codes that add and remove answer. After anything but RESULT_OK the state may be half changed: work on a
// copy.

// Stores the policies. A stored bundle keeps its fingerprint, which has to be the same, takes the new version code, and
// a policy of the same name is replaced.
int32_t AddPolicies(DeviceState& state,
                    const std::vector<VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo>& gTokenInfos);

// Forgets the bundles; a name that is given twice counts once.
int32_t RemovePolicies(DeviceState& state, const std::vector<std::string>& bundleNames);

// Adds what a list in a file says. Throws InputError where a bundle cannot be added.
void ReadPolicies(const JsonNode& list, DeviceState& state);

}  // namespace SecurityPrivacyExample
