// SPDX-License-Identifier: Apache-2.0
#include "service/device_store.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "common/result_codes.h"

namespace SecurityPrivacyExample {
namespace {

const AppPermissionGroupInfo* FindGroup(const Installation& app, const std::string& permissionGroup)
{
    const auto found = std::find_if(app.groups.begin(), app.groups.end(), [&](const AppPermissionGroupInfo& info) {
        return info.permissionGroup == permissionGroup;
    });
    return found != app.groups.end() ? &*found : nullptr;
}

const Installation* FindApp(const DeviceData& device, const std::string& bundleName, int32_t Installation::*number,
                            int32_t value)
{
    const auto found =
        std::find_if(device.installations.begin(), device.installations.end(),
                     [&](const Installation& app) { return app.bundleName == bundleName && app.*number == value; });
    return found != device.installations.end() ? &*found : nullptr;
}

int32_t CheckChoice(const AppPermissionGroupInfo& group, const std::string& checkedState)
{
    const std::vector<std::string>& shown = group.shownStates;
    if (std::find(shown.begin(), shown.end(), checkedState) == shown.end()) {
        return RESULT_STATE_NOT_SHOWN;
    }
    return group.disabledStates.count(checkedState) != 0 ? RESULT_STATE_DISABLED : RESULT_OK;
}

// The group as the device data has it, with what was chosen since.
AppPermissionGroupInfo WithChoice(const AppPermissionGroupInfo& group, const DeviceState& state)
{
    AppPermissionGroupInfo info = group;
    const auto choice = state.groupChoices.find({group.bundleName, group.uid, group.permissionGroup});
    if (choice != state.groupChoices.end()) {
        info.checkedState = choice->second.checkedState;
        info.flags = choice->second.flags;
    }
    return info;
}

// Device data may have been replaced since the state was saved: a choice that it no longer offers is left out.
void DropStaleChoices(const DeviceData& device, DeviceState& state)
{
    for (auto entry = state.groupChoices.begin(); entry != state.groupChoices.end();) {
        const auto& [key, choice] = *entry;
        const Installation* app = FindApp(device, key.bundleName, &Installation::uid, key.uid);
        const AppPermissionGroupInfo* group = app != nullptr ? FindGroup(*app, key.permissionGroup) : nullptr;
        if (group != nullptr && CheckChoice(*group, choice.checkedState) == RESULT_OK) {
            ++entry;
            continue;
        }
        std::fprintf(stderr,
                     "security-privacy-service: %s (uid %" PRId32
                     "), %s: the saved choice is not offered any "
                     "more and is left out\n",
                     key.bundleName.c_str(), key.uid, key.permissionGroup.c_str());
        entry = state.groupChoices.erase(entry);
    }
}

}  // namespace

DeviceStore::DeviceStore(DeviceData device, const std::string& path)
    : device_(std::move(device)), file_(path.empty() ? nullptr : std::make_unique<const StateFile>(path))
{
    std::optional<DeviceState> saved = file_ ? file_->Load() : std::nullopt;
    if (saved) {
        DropStaleChoices(device_, *saved);
    }
    state_ = std::make_shared<const DeviceState>(saved ? *saved : device_.state);
}

int32_t DeviceStore::ListGroupsOfApp(const std::string& bundleName, int32_t userId,
                                     const std::unordered_set<std::string>& interestedPermissionGroups,
                                     std::vector<AppPermissionGroupInfo>& infos) const
{
    if (!HasUser(userId)) {
        return RESULT_UNKNOWN_USER;
    }
    const Installation* app = FindApp(device_, bundleName, &Installation::userId, userId);
    if (app == nullptr) {
        return RESULT_UNKNOWN_APP;
    }
    const Snapshot state = Current();
    for (const AppPermissionGroupInfo& group : app->groups) {
        if (interestedPermissionGroups.empty() || interestedPermissionGroups.count(group.permissionGroup) != 0) {
            infos.push_back(WithChoice(group, *state));
        }
    }
    return RESULT_OK;
}

int32_t DeviceStore::ListAppsOfGroup(const std::string& permissionGroup, int32_t userId,
                                     const std::unordered_set<std::string>& interestedBundleNames,
                                     std::vector<AppPermissionGroupInfo>& infos) const
{
    if (!HasUser(userId)) {
        return RESULT_UNKNOWN_USER;
    }
    const std::vector<std::string>& groups = device_.permissionGroups;
    if (std::find(groups.begin(), groups.end(), permissionGroup) == groups.end()) {
        return RESULT_UNKNOWN_PERMISSION_GROUP;
    }
    const Snapshot state = Current();
    for (const Installation& app : device_.installations) {
        if (app.userId != userId ||
            (!interestedBundleNames.empty() && interestedBundleNames.count(app.bundleName) == 0)) {
            continue;
        }
        if (const AppPermissionGroupInfo* group = FindGroup(app, permissionGroup)) {
            infos.push_back(WithChoice(*group, *state));
        }
    }
    return RESULT_OK;
}

int32_t DeviceStore::SetCheckedState(const std::string& bundleName, int32_t uid, const std::string& permissionGroup,
                                     const CheckedStateParameter& parameter, bool& isChanged)
{
    isChanged = false;
    const Installation* app = FindApp(device_, bundleName, &Installation::uid, uid);
    if (app == nullptr) {
        return RESULT_UNKNOWN_APP;
    }
    const AppPermissionGroupInfo* group = FindGroup(*app, permissionGroup);
    if (group == nullptr) {
        return RESULT_UNKNOWN_PERMISSION_GROUP;
    }
    const int32_t result = CheckChoice(*group, parameter.checkedState);
    if (result != RESULT_OK) {
        return result;
    }
    bool differs = false;
    const int32_t changeResult = Change([&](DeviceState& state) -> int32_t {
        const AppPermissionGroupInfo before = WithChoice(*group, state);
        const int64_t flags = (before.flags & ~parameter.flagsMask) | (parameter.flagsValue & parameter.flagsMask);
        differs = parameter.checkedState != before.checkedState || flags != before.flags;
        state.groupChoices[{bundleName, uid, permissionGroup}] = {parameter.checkedState, flags};
        return RESULT_OK;
    });
    isChanged = differs && changeResult == RESULT_OK;
    return changeResult;
}

int32_t DeviceStore::Add(const std::vector<GTokenInfo>& gTokenInfos)
{
    return Change([&](DeviceState& state) { return AddPolicies(state, gTokenInfos); });
}

int32_t DeviceStore::Remove(const std::vector<std::string>& bundleNames)
{
    return Change([&](DeviceState& state) { return RemovePolicies(state, bundleNames); });
}

std::vector<GTokenResult> DeviceStore::Get(const std::string& policyName,
                                           const std::vector<std::string>& bundleNames) const
{
    const Snapshot state = Current();
    std::vector<GTokenResult> rows;
    for (const std::string& bundleName : bundleNames) {
        const auto bundle = state->bundles.find(bundleName);
        if (bundle == state->bundles.end()) {
            continue;
        }
        const auto value = bundle->second->values.find(policyName);
        if (value == bundle->second->values.end()) {
            continue;
        }
        GTokenResult row;
        row.bundleName = bundleName;
        row.fingerprint = bundle->second->fingerprint;
        row.versionCode = bundle->second->versionCode;
        row.policyValue = value->second;
        rows.push_back(std::move(row));
    }
    return rows;
}

DeviceStore::Snapshot DeviceStore::Current() const
{
    const std::lock_guard<std::mutex> lock(stateMutex_);
    return state_;
}

int32_t DeviceStore::Change(const std::function<int32_t(DeviceState&)>& change)
{
    const std::lock_guard<std::mutex> changing(changeMutex_);
    auto next = std::make_shared<DeviceState>(*Current());
    const int32_t result = change(*next);
    if (result != RESULT_OK) {
        return result;
    }
    if (file_ && !file_->Save(*next)) {
        return RESULT_NOT_SAVED;
    }
    Snapshot published = std::move(next);
    const std::lock_guard<std::mutex> lock(stateMutex_);
    state_.swap(published);  // the old state goes after the lock
    return RESULT_OK;
}

bool DeviceStore::HasUser(int32_t userId) const
{
    return std::find(device_.userIds.begin(), device_.userIds.end(), userId) != device_.userIds.end();
}

}  // namespace SecurityPrivacyExample
