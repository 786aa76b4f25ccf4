// SPDX-License-Identifier: Apache-2.0
#include "service/security_privacy_service.h"

#include <algorithm>
#include <string_view>

#include "common/result_codes.h"
#include "security_privacy/contract.h"
#include "varn/host/caller.h"
#include "varn/log.h"

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenPolicy;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResult;
using VARN::Host::CurrentCaller;

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

// The statement at its first row, which has to be there.
SQLite::Statement& Row(SQLite::Statement& statement, const ResultCode& missing)
{
    Demand(statement.executeStep(), missing);
    return statement;
}

// Makes a record of the rows of each group whose filtered column is among the wanted names; of none, all.
void ListGroups(Connection& connection, const Listing& listing, int32_t user, const std::string& name,
                const std::unordered_set<std::string>& wanted, std::vector<AppPermissionGroupInfo>& infos)
{
    Row(connection.Prepare("SELECT 1 FROM user WHERE id = ?", user), RESULT_UNKNOWN_USER);
    Row(connection.Prepare(listing.exists, user, name), listing.missing);
    SQLite::Statement& rows = connection.Prepare(std::string(GROUP_ROWS) + listing.rows, user, name);
    size_t bytes = 0;
    int64_t last = 0;
    while (rows.executeStep()) {
        if (!wanted.empty() && wanted.count(rows.getColumn(listing.filtered)) == 0) {
            continue;
        }
        const int64_t group = rows.getColumn(0);
        if (group != last) {
            if (infos.size() == MAX_INFOS) {
                break;
            }
            last = group;
            AppPermissionGroupInfo& info = infos.emplace_back();
            info.bundleName = rows.getColumn(1).getString();
            info.uid = rows.getColumn(2);
            info.permissionGroup = rows.getColumn(3).getString();
            info.checkedState = rows.getColumn(4).getString();
            info.flags = rows.getColumn(5);
            info.disabledReason = rows.getColumn(6).getString();
            bytes += info.bundleName.size() + info.permissionGroup.size() + info.checkedState.size() +
                     info.disabledReason.size();
        }
        const std::string& state = infos.back().shownStates.emplace_back(rows.getColumn(7).getString());
        if (rows.getColumn(8).getInt() != 0) {
            infos.back().disabledStates.insert(state);
        }
        bytes += state.size();
        Demand(bytes <= MAX_ANSWER_BYTES, RESULT_ANSWER_TOO_LONG);
    }
}

// Names that a log and a table can hold as they are, and no longer than an answer can repeat.
void CheckName(std::string_view name, size_t maxBytes)
{
    const bool isGood = !name.empty() && std::all_of(name.begin(), name.end(), [](char character) {
        return character > ' ' && character <= '~';
    });
    Demand(isGood, RESULT_BAD_NAME);
    Demand(name.size() <= maxBytes, RESULT_TOO_LONG);
}

}  // namespace

bool SecurityPrivacyService::IsMessageCodeAllowed(uint32_t messageCode)
{
    const bool isChange = messageCode == MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE ||
                          messageCode == MessageCode::GTOKEN_POLICY_ADD_POLICY ||
                          messageCode == MessageCode::GTOKEN_POLICY_REMOVE_POLICY;
    const VARN::Host::Caller caller = CurrentCaller();
    if (!isChange || (!isReadOnly_ && changers_.count(caller.uid) != 0)) {
        return true;
    }
    // The library's own line says what was refused, but not to whom.
    VoLogPrint(LOG_TYPE, VARN::LOG_LEVEL_WARN, LOG_DOMAIN, LOG_TAG, "user %u, process %d: %s is refused", caller.uid,
               caller.pid, MessageCode::ToString(messageCode).c_str());
    return false;
}

int32_t SecurityPrivacyService::Transact(int32_t (Database::*how)(const Connection::Work&),
                                         const Connection::Work& work)
{
    try {
        return (database_.*how)(work);
    } catch (const DatabaseError& error) {
        const ResultCode failure = how == &Database::Read ? RESULT_NOT_READ : RESULT_NOT_SAVED;
        VoLogPrint(LOG_TYPE, VARN::LOG_LEVEL_ERROR, LOG_DOMAIN, LOG_TAG, "%s: %s", failure.meaning, error.what());
        return failure;
    }
}

int32_t SecurityPrivacyService::GetAppPermissionGroupInfosByApp(
    const std::string& bundleName, int32_t userId, const std::unordered_set<std::string>& interestedPermissionGroups,
    std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return Transact(&Database::Read, [&](Connection& connection) {
        ListGroups(connection, BY_APP, userId, bundleName, interestedPermissionGroups, appPermissionGroupInfos);
    });
}

int32_t SecurityPrivacyService::GetAppPermissionGroupInfosByPermission(
    const std::string& permissionGroup, int32_t userId, const std::unordered_set<std::string>& interestedBundleNames,
    std::vector<AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return Transact(&Database::Read, [&](Connection& connection) {
        ListGroups(connection, BY_GROUP, userId, permissionGroup, interestedBundleNames, appPermissionGroupInfos);
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
    const int32_t result = Transact(&Database::Write, [&](Connection& connection) {
        const int64_t app = Row(connection.Prepare("SELECT id FROM app WHERE bundle = ? AND uid = ?", bundleName, uid),
                                RESULT_UNKNOWN_APP)
                                .getColumn(0);
        SQLite::Statement& group =
            Row(connection.Prepare("SELECT app_group.id, coalesce(choice.state, app_group.state), "
                                   "coalesce(choice.flags, app_group.flags) FROM app_group "
                                   "JOIN permission_group ON permission_group.id = app_group.permission_group "
                                   "LEFT JOIN choice ON choice.app_group = app_group.id WHERE app = ? AND name = ?",
                                   app, permissionGroup),
                RESULT_UNKNOWN_PERMISSION_GROUP);
        const int64_t id = group.getColumn(0);
        const int64_t oldFlags = group.getColumn(2);
        SQLite::Statement& shown =
            connection.Prepare("SELECT is_disabled FROM shown_state WHERE app_group = ? AND state = ?", id, state);
        Demand(Row(shown, RESULT_STATE_NOT_SHOWN).getColumn(0).getInt() == 0, RESULT_STATE_DISABLED);
        const int64_t flags = (oldFlags & ~mask) | (checkedStateParameter.flagsValue & mask);
        differs = group.getColumn(1).getString() != state || oldFlags != flags;
        connection.Run("INSERT OR REPLACE INTO choice (app_group, state, flags) VALUES (?, ?, ?)", id, state, flags);
    });
    returns = differs && result == RESULT_OK;
    return result;
}

void SecurityPrivacyService::AddPolicies(Connection& connection, const GTokenInfo& info)
{
    CheckName(info.bundleName, MAX_NAME_BYTES);
    CheckName(info.fingerprint, MAX_FINGERPRINT_BYTES);
    for (const GTokenPolicy& policy : info.policies) {
        CheckName(policy.policyName, MAX_NAME_BYTES);
    }
    const int64_t bundle =
        Row(connection.Prepare(
                "INSERT INTO bundle (name, fingerprint, version_code) VALUES (?, ?, ?) ON CONFLICT DO UPDATE "
                "SET version_code = excluded.version_code WHERE fingerprint = excluded.fingerprint RETURNING id",
                info.bundleName, info.fingerprint, info.versionCode),
            RESULT_FINGERPRINT_MISMATCH)
            .getColumn(0);
    for (const GTokenPolicy& policy : info.policies) {
        connection.Run(
            "INSERT INTO policy (bundle, name, value) VALUES (?, ?, ?) "
            "ON CONFLICT DO UPDATE SET value = excluded.value",
            bundle, policy.policyName, policy.policyValue);
    }
}

int32_t SecurityPrivacyService::GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos)
{
    return Transact(&Database::Write, [&](Connection& connection) {
        for (const GTokenInfo& info : gTokenInfos) {
            AddPolicies(connection, info);
        }
    });
}

GTokenResultWithRet SecurityPrivacyService::GTokenPolicyGetPolicy(std::string policyName,
                                                                  const std::vector<std::string>& bundleNames)
{
    const std::string sql = std::string("SELECT version_code, value, ") +
                            (changers_.count(CurrentCaller().uid) != 0 ? "fingerprint" : "''") +
                            " FROM bundle JOIN policy ON policy.bundle = bundle.id "
                            "WHERE bundle.name = ? AND policy.name = ?";
    GTokenResultWithRet result;
    result.ret = Transact(&Database::Read, [&](Connection& connection) {
        size_t bytes = 0;
        for (const std::string& bundleName : bundleNames) {
            SQLite::Statement& found = connection.Prepare(sql, bundleName, policyName);
            if (!found.executeStep()) {
                continue;
            }
            GTokenResult& row = result.gTokenResults.emplace_back();
            row.bundleName = bundleName;
            row.versionCode = found.getColumn(0);
            row.policyValue = found.getColumn(1);
            row.fingerprint = found.getColumn(2).getString();
            bytes += row.bundleName.size() + row.fingerprint.size();
            Demand(bytes <= MAX_ANSWER_BYTES, RESULT_ANSWER_TOO_LONG);
        }
    });
    if (result.ret != RESULT_OK) {
        result.gTokenResults.clear();
    }
    return result;
}

int32_t SecurityPrivacyService::GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames)
{
    // A name that is given twice counts once.
    const std::unordered_set<std::string> names(bundleNames.begin(), bundleNames.end());
    return Transact(&Database::Write, [&](Connection& connection) {
        for (const std::string& name : names) {
            Demand(connection.Run("DELETE FROM bundle WHERE name = ?", name) != 0, RESULT_UNKNOWN_BUNDLE);
        }
    });
}

}  // namespace SecurityPrivacyTools
