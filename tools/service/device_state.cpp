// SPDX-License-Identifier: Apache-2.0
#include "service/device_state.h"

#include <algorithm>
#include <unordered_set>

#include "common/result_codes.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenPolicy;

// Names that a log, a table and a state file can all hold as they are.
bool IsGoodName(const std::string& name)
{
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char character) { return character > ' ' && character <= '~'; });
}

int32_t AddBundle(DeviceState& state, const GTokenInfo& info)
{
    if (!IsGoodName(info.bundleName) || !IsGoodName(info.fingerprint)) {
        return RESULT_BAD_NAME;
    }
    std::shared_ptr<const BundlePolicies>& stored = state.bundles[info.bundleName];
    BundlePolicies bundle = stored ? *stored : BundlePolicies{info.fingerprint, 0, {}};
    if (bundle.fingerprint != info.fingerprint) {
        return RESULT_FINGERPRINT_MISMATCH;
    }
    bundle.versionCode = info.versionCode;
    for (const GTokenPolicy& policy : info.policies) {
        if (!IsGoodName(policy.policyName)) {
            return RESULT_BAD_NAME;
        }
        bundle.values[policy.policyName] = policy.policyValue;
    }
    stored = std::make_shared<const BundlePolicies>(std::move(bundle));
    return RESULT_OK;
}

}  // namespace

int32_t AddPolicies(DeviceState& state, const std::vector<GTokenInfo>& gTokenInfos)
{
    for (const GTokenInfo& info : gTokenInfos) {
        const int32_t result = AddBundle(state, info);
        if (result != RESULT_OK) {
            return result;
        }
    }
    return RESULT_OK;
}

int32_t RemovePolicies(DeviceState& state, const std::vector<std::string>& bundleNames)
{
    const std::unordered_set<std::string> names(bundleNames.begin(), bundleNames.end());
    const bool removesAll = std::all_of(names.begin(), names.end(),
                                        [&](const std::string& name) { return state.bundles.erase(name) != 0; });
    return removesAll ? RESULT_OK : RESULT_UNKNOWN_BUNDLE;
}

void ReadPolicies(const JsonNode& list, DeviceState& state)
{
    for (const JsonNode& item : list.Items()) {
        const int32_t result = AddBundle(state, ReadGTokenInfo(item));
        if (result != RESULT_OK) {
            item.Fail(ResultCodeMeaning(result));
        }
    }
}

}  // namespace SecurityPrivacyExample
