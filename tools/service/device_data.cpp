// SPDX-License-Identifier: Apache-2.0
#include "service/device_data.h"

#include <algorithm>
#include <map>
#include <set>

#include "common/json_input.h"
#include "common/usage_codes.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission::AppPermissionGroupInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;

// More than that a record does not carry.
constexpr size_t MAX_STATES = 50;
// Keeps sums and shifts of timestamps far from overflow.
constexpr int64_t MAX_TIMESTAMP = int64_t{1} << 53;

template <class Container, class Value>
bool Contains(const Container& container, const Value& value)
{
    return std::find(container.begin(), container.end(), value) != container.end();
}

std::vector<int32_t> ReadUserIds(const JsonNode& node)
{
    std::vector<int32_t> userIds;
    for (const JsonNode& item : node.Items()) {
        const int32_t userId = item.Int32(0);
        if (Contains(userIds, userId)) {
            item.Fail("the user is listed twice");
        }
        userIds.push_back(userId);
    }
    return userIds;
}

std::vector<std::string> ReadPermissionGroups(const JsonNode& node)
{
    std::vector<std::string> groups;
    for (const JsonNode& item : node.Items()) {
        if (Contains(groups, item.Text())) {
            item.Fail("the group is listed twice");
        }
        groups.push_back(item.Text());
    }
    return groups;
}

std::string ReadPermissionGroup(const JsonNode& node, const DeviceData& device)
{
    std::string group = node.Text();
    if (!Contains(device.permissionGroups, group)) {
        node.Fail("is not among the permissionGroups");
    }
    return group;
}

void ReadStates(const JsonNode& node, AppPermissionGroupInfo& info)
{
    info.checkedState = node["checkedState"].Text();
    info.shownStates = node["shownStates"].Texts();
    if (info.shownStates.size() > MAX_STATES) {
        node["shownStates"].Fail("more than " + std::to_string(MAX_STATES) + " states");
    }
    if (!Contains(info.shownStates, info.checkedState)) {
        node["checkedState"].Fail("is not among the shownStates");
    }
    if (const auto disabled = node.Find("disabledStates")) {
        for (const JsonNode& item : disabled->Items()) {
            if (!Contains(info.shownStates, item.Text())) {
                item.Fail("is not among the shownStates");
            }
            info.disabledStates.insert(item.Text());
        }
    }
    if (const auto reason = node.Find("disabledReason")) {
        info.disabledReason = reason->Text();
    }
    if (const auto flags = node.Find("flags")) {
        info.flags = flags->Integer();
    }
}

Installation ReadInstallation(const JsonNode& node, const std::string& bundleName, const DeviceData& device)
{
    node.AllowOnly({"userId", "uid", "groups"});
    Installation installation;
    installation.bundleName = bundleName;
    installation.userId = node["userId"].Int32(0);
    installation.uid = node["uid"].Int32(0);
    if (!Contains(device.userIds, installation.userId)) {
        node["userId"].Fail("is not among the users");
    }
    for (const JsonNode& item : node["groups"].Items()) {
        item.AllowOnly({"permissionGroup", "checkedState", "shownStates", "disabledStates", "disabledReason", "flags"});
        AppPermissionGroupInfo info;
        info.bundleName = bundleName;
        info.uid = installation.uid;
        info.permissionGroup = ReadPermissionGroup(item["permissionGroup"], device);
        ReadStates(item, info);
        const bool isRepeated =
            std::any_of(installation.groups.begin(), installation.groups.end(),
                        [&](const auto& other) { return other.permissionGroup == info.permissionGroup; });
        if (isRepeated) {
            item.Fail("the app holds the group already");
        }
        installation.groups.push_back(std::move(info));
    }
    return installation;
}

using BundleAndUser = std::pair<std::string, int32_t>;

std::map<BundleAndUser, int32_t> ReadApps(const JsonNode& node, DeviceData& device)
{
    std::map<BundleAndUser, int32_t> uids;
    std::set<int32_t> takenUids;
    for (const JsonNode& app : node.Items()) {
        app.AllowOnly({"bundleName", "installations"});
        const std::string bundleName = app["bundleName"].Text();
        for (const JsonNode& item : app["installations"].Items()) {
            Installation installation = ReadInstallation(item, bundleName, device);
            if (!uids.emplace(BundleAndUser(bundleName, installation.userId), installation.uid).second) {
                item.Fail("the app is installed for the user already");
            }
            if (!takenUids.insert(installation.uid).second) {
                item["uid"].Fail("another app has the uid");
            }
            device.installations.push_back(std::move(installation));
        }
    }
    return uids;
}

int32_t ReadUsageCode(const JsonNode& node, const std::vector<UsageCode>& codes)
{
    const UsageCode* code = FindUsageCode(codes, node.Text());
    if (code == nullptr) {
        node.Fail("expected one of: " + UsageCodeNames(codes));
    }
    return code->code;
}

UsageEvent ReadUsageEvent(const JsonNode& node, const DeviceData& device, const std::map<BundleAndUser, int32_t>& uids)
{
    node.AllowOnly({"bundleName", "userId", "operationGroup", "times", "mode", "app", "screen", "begin", "end"});
    UsageEvent event;
    event.userId = node["userId"].Int32(0);
    const auto uid = uids.find(BundleAndUser(node["bundleName"].Text(), event.userId));
    if (uid == uids.end()) {
        node.Fail("the app is not installed for the user");
    }
    PermissionUsageRecord& record = event.record;
    record.SetBundleName(node["bundleName"].Text());
    record.SetUid(uid->second);
    record.SetOperationGroup(ReadPermissionGroup(node["operationGroup"], device));
    record.SetTimes(node["times"].Int32(1));
    record.SetOperationMode(ReadUsageCode(node["mode"], OperationModes()));
    record.SetAppState(ReadUsageCode(node["app"], AppStates()));
    record.SetScreenState(ReadUsageCode(node["screen"], ScreenStates()));
    record.SetBeginTimestamp(node["begin"].Integer(0, MAX_TIMESTAMP));
    record.SetEndTimestamp(node["end"].Integer(record.GetBeginTimestamp(), MAX_TIMESTAMP));
    return event;
}

}  // namespace

DeviceData LoadDeviceData(const std::string& path)
{
    const JsonDocument document(path);
    const JsonNode root = document.Root();
    root.RequireFormat("security-privacy-device", 1);
    root.AllowOnly({"format", "version", "recordedAt", "users", "permissionGroups", "apps", "gTokens", "usageEvents"});

    DeviceData device;
    device.recordedAt = root["recordedAt"].Integer(0, MAX_TIMESTAMP);
    device.userIds = ReadUserIds(root["users"]);
    device.permissionGroups = ReadPermissionGroups(root["permissionGroups"]);
    const std::map<BundleAndUser, int32_t> uids = ReadApps(root["apps"], device);
    ReadPolicies(root["gTokens"], device.state);
    for (const JsonNode& item : root["usageEvents"].Items()) {
        device.usageEvents.push_back(ReadUsageEvent(item, device, uids));
    }
    return device;
}

void ShiftUsage(DeviceData& device, int64_t now)
{
    const int64_t shift = now - device.recordedAt;
    for (UsageEvent& event : device.usageEvents) {
        event.record.SetBeginTimestamp(event.record.GetBeginTimestamp() + shift);
        event.record.SetEndTimestamp(event.record.GetEndTimestamp() + shift);
    }
    device.recordedAt = now;
}

}  // namespace SecurityPrivacyExample
