// SPDX-License-Identifier: Apache-2.0
#include "service/security_privacy_service.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "common/result_codes.h"
#include "security_privacy/contract.h"
#include "service/policies.h"
#include "varn/host/caller.h"
#include "varn/log.h"

namespace SecurityPrivacyTools {
namespace {

using VARN::Host::CurrentCaller;

constexpr int LOG_TYPE = 3;
constexpr uint32_t LOG_DOMAIN = 0xD0E0;
constexpr const char* LOG_TAG = "SERVICE";

// One more than an answer may carry; the library tells that it leaves the rest out.
constexpr size_t MAX_INFOS =
    size_t{VARN::AppSecurityPrivacy::SecurityPrivacyServer::MAX_APP_PERMISSION_GROUP_INFO_SIZE} + 1;

// A row for each state that a group shows, groups and states in the order of the device file.
constexpr const char* GROUP_ROWS =
    "SELECT app_group.id, bundle, uid, name, coalesce(choice.state, app_group.state), "
    "coalesce(choice.flags, app_group.flags), disabled_reason, shown_state.state, is_disabled "
    "FROM app JOIN app_group ON app_group.app = app.id "
    "JOIN permission_group ON permission_group.id = app_group.permission_group "
    "JOIN shown_state ON shown_state.app_group = app_group.id LEFT JOIN choice ON choice.app_group = app_group.id "
    "WHERE user = ? AND ";

// Makes a record of the rows of each group whose column `filtered` is among the wanted names; of none, all.
int32_t ReadGroups(SQLite::Statement& rows, int filtered, const std::unordered_set<std::string>& wanted,
                   std::vector<AppPermissionGroupInfo>& infos)
{
    std::vector<AppPermissionGroupInfo> found;
    size_t bytes = 0;
    int64_t last = 0;
    while (rows.executeStep()) {
        if (!wanted.empty() && wanted.count(rows.getColumn(filtered).getString()) == 0) {
            continue;
        }
        if (rows.getColumn(0).getInt64() != last) {
            if (found.size() == MAX_INFOS) {
                break;
            }
            last = rows.getColumn(0).getInt64();
            AppPermissionGroupInfo& info = found.emplace_back();
            info.bundleName = rows.getColumn(1).getString();
            info.uid = rows.getColumn(2).getInt();
            info.permissionGroup = rows.getColumn(3).getString();
            info.checkedState = rows.getColumn(4).getString();
            info.flags = rows.getColumn(5).getInt64();
            info.disabledReason = rows.getColumn(6).getString();
            bytes += info.bundleName.size() + info.permissionGroup.size() + info.checkedState.size() +
                     info.disabledReason.size();
        }
        found.back().shownStates.emplace_back(rows.getColumn(7).getString());
        if (rows.getColumn(8).getInt64() != 0) {
            found.back().disabledStates.emplace(rows.getColumn(7).getString());
        }
        bytes += rows.getColumn(7).getString().size();
        if (bytes > MAX_ANSWER_BYTES) {
            return RESULT_ANSWER_TOO_LONG;
        }
    }
    infos.insert(infos.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    return RESULT_OK;
}

// The groups of an app, or the apps of a group: what they are listed by has to exist, as has the user.
struct Listing {
    const char* exists;
    ResultCode missing;
    const char* rows;  // the end of GROUP_ROWS
    int filtered;      // its column that the wanted names are compared with
};
constexpr Listing BY_APP{"SELECT 1 FROM app WHERE user = ? AND bundle = ?", RESULT_UNKNOWN_APP,
                         "bundle = ? ORDER BY app_group.id, place", 3};
constexpr Listing BY_GROUP{"SELECT 1 FROM permission_group WHERE name = ?2", RESULT_UNKNOWN_PERMISSION_GROUP,
                           "name = ? ORDER BY app.id, place", 1};

int32_t ListGroups(Connection& connection, const Listing& listing, int64_t user, const std::string& name,
                   const std::unordered_set<std::string>& wanted, std::vector<AppPermissionGroupInfo>& infos)
{
    SQLite::Statement& knownUser = connection.Prepare("SELECT 1 FROM user WHERE id = ?", user);
    if (!knownUser.executeStep()) {
        return RESULT_UNKNOWN_USER;
    }
    SQLite::Statement& known = connection.Prepare(listing.exists, user, name);
    if (!known.executeStep()) {
        return listing.missing;
    }
    SQLite::Statement& rows = connection.Prepare(std::string(GROUP_ROWS) + listing.rows, user, name);
    return ReadGroups(rows, listing.filtered, wanted, infos);
}

int32_t OrFailure(int32_t failure, const std::function<int32_t()>& work)
{
    try {
        return work();
    } catch (const DatabaseError& error) {
        VoLogPrint(LOG_TYPE, VARN::LOG_LEVEL_ERROR, LOG_DOMAIN, LOG_TAG, "%s: %s", DescribeResult(failure)->meaning,
                   error.what());
        return failure;
    }
}

}  // namespace

SecurityPrivacyService::SecurityPrivacyService(Database& database, AccessPolicy policy)
    : database_(database), policy_(std::move(policy))
{
}

bool SecurityPrivacyService::IsChanger(uid_t uid) const
{
    return std::find(policy_.changers.begin(), policy_.changers.end(), uid) != policy_.changers.end();
}

bool SecurityPrivacyService::IsMessageCodeAllowed(uint32_t messageCode)
{
    const bool isChange = messageCode == MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE ||
                          messageCode == MessageCode::GTOKEN_POLICY_ADD_POLICY ||
                          messageCode == MessageCode::GTOKEN_POLICY_REMOVE_POLICY;
    const VARN::Host::Caller caller = CurrentCaller();
    if (!isChange || (!policy_.isReadOnly && IsChanger(caller.uid))) {
        return true;
    }
    // The library's own line says what was refused, but not to whom.
    VoLogPrint(LOG_TYPE, VARN::LOG_LEVEL_WARN, LOG_DOMAIN, LOG_TAG, "user %u, process %d: %s is refused", caller.uid,
               caller.pid, MessageCode::ToString(messageCode).c_str());
    return false;
}

int32_t SecurityPrivacyService::Read(const Work& work)
{
    return OrFailure(RESULT_NOT_READ, [&] { return database_.Read(work); });
}

int32_t SecurityPrivacyService::Write(const Work& work)
{
    return OrFailure(RESULT_NOT_SAVED, [&] { return database_.Write(work); });
}

int32_t SecurityPrivacyService::GetAppPermissionGroupInfosByApp(
    const std::string& bundleName, int32_t userId, const std::unordered_set<std::string>& interestedPermissionGroups,
    std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return Read([&](Connection& connection) {
        return ListGroups(connection, BY_APP, userId, bundleName, interestedPermissionGroups, appPermissionGroupInfos);
    });
}

int32_t SecurityPrivacyService::GetAppPermissionGroupInfosByPermission(
    const std::string& permissionGroup, int32_t userId, const std::unordered_set<std::string>& interestedBundleNames,
    std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return Read([&](Connection& connection) {
        return ListGroups(connection, BY_GROUP, userId, permissionGroup, interestedBundleNames,
                          appPermissionGroupInfos);
    });
}

int32_t SecurityPrivacyService::SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                                                  const std::string& permissionGroup,
                                                                  const CheckedStateParameter& checkedStateParameter,
                                                                  bool& returns)
{
    const std::string& state = checkedStateParameter.checkedState;
    const int64_t mask = checkedStateParameter.flagsMask;
    bool differs = false;
    const int32_t result = Write([&](Connection& connection) -> int32_t {
        SQLite::Statement& app =
            connection.Prepare("SELECT id FROM app WHERE bundle = ? AND uid = ?", bundleName, int64_t{uid});
        if (!app.executeStep()) {
            return RESULT_UNKNOWN_APP;
        }
        SQLite::Statement& group = connection.Prepare(
            "SELECT app_group.id, coalesce(choice.state, app_group.state), "
            "coalesce(choice.flags, app_group.flags) FROM app_group "
            "JOIN permission_group ON permission_group.id = app_group.permission_group "
            "LEFT JOIN choice ON choice.app_group = app_group.id WHERE app = ? AND name = ?",
            app.getColumn(0).getInt64(), permissionGroup);
        if (!group.executeStep()) {
            return RESULT_UNKNOWN_PERMISSION_GROUP;
        }
        SQLite::Statement& shown =
            connection.Prepare("SELECT is_disabled FROM shown_state WHERE app_group = ? AND state = ?",
                               group.getColumn(0).getInt64(), state);
        if (!shown.executeStep()) {
            return RESULT_STATE_NOT_SHOWN;
        }
        if (shown.getColumn(0).getInt64() != 0) {
            return RESULT_STATE_DISABLED;
        }
        const int64_t flags = (group.getColumn(2).getInt64() & ~mask) | (checkedStateParameter.flagsValue & mask);
        differs = group.getColumn(1).getString() != state || group.getColumn(2).getInt64() != flags;
        connection.Run("INSERT OR REPLACE INTO choice (app_group, state, flags) VALUES (?, ?, ?)",
                       group.getColumn(0).getInt64(), state, flags);
        return RESULT_OK;
    });
    returns = differs && result == RESULT_OK;
    return result;
}

int32_t SecurityPrivacyService::GetPermissionUsageSummary(const PermissionUsageRecordQuery& query,
                                                          std::vector<PermissionUsageRecord>& records)
{
    return Read([&](Connection& connection) { return SummariseUsage(connection, query, records); });
}

int32_t SecurityPrivacyService::GetPermissionUsageTimeline(const PermissionUsageRecordQuery& query,
                                                           std::vector<PermissionUsageRecord>& records)
{
    return Read([&](Connection& connection) { return ListUsage(connection, query, records); });
}

int32_t SecurityPrivacyService::GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos)
{
    return Write([&](Connection& connection) -> int32_t {
        for (const GTokenInfo& info : gTokenInfos) {
            const int32_t result = AddPolicies(connection, info);
            if (result != RESULT_OK) {
                return result;
            }
        }
        return RESULT_OK;
    });
}

GTokenResultWithRet SecurityPrivacyService::GTokenPolicyGetPolicy(std::string policyName,
                                                                  const std::vector<std::string>& bundleNames)
{
    GTokenResultWithRet result;
    result.ret = Read([&](Connection& connection) {
        return GetPolicies(connection, policyName, bundleNames, IsChanger(CurrentCaller().uid), result.gTokenResults);
    });
    if (result.ret != RESULT_OK) {
        result.gTokenResults.clear();
    }
    return result;
}

int32_t SecurityPrivacyService::GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames)
{
    return Write([&](Connection& connection) { return RemovePolicies(connection, bundleNames); });
}

}  // namespace SecurityPrivacyTools
