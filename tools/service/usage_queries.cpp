// SPDX-License-Identifier: Apache-2.0
//
// A query becomes one statement. What it filters by decides which index leads: one app or one group alone its own, in
// which its events stand in order of time; anything else the index of the span. So the events come in the order of the
// answer, and reading ends with it. The tables are joined in the order in which they are written (CROSS JOIN), or the
// planner would sort instead.
#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <utility>

#include "common/result_codes.h"
#include "security_privacy/contract.h"
#include "service/security_privacy_service.h"

namespace SecurityPrivacyTools {
namespace {

constexpr int32_t OLDEST_FIRST = 0;
constexpr int32_t NEWEST_FIRST = 1;

// One more than an answer may carry.
constexpr int32_t MAX_READ = VARN::AppSecurityPrivacy::SecurityPrivacyServer::MAX_USAGE_RECORD_SIZE + 1;

// Sums that are kept while a summary is made: with many apps there may be more than memory should hold.
constexpr size_t MAX_SUMS = 65536;

int32_t MostRecords(const PermissionUsageRecordQuery& query)
{
    return query.GetLimit() == 0 ? MAX_READ : std::min(query.GetLimit(), MAX_READ);
}

// " AND column IN (1,2)", or nothing for a list that does not restrict.
std::string In(const char* column, const std::vector<int>& numbers)
{
    std::string list;
    for (const int number : numbers) {
        list += (list.empty() ? "" : ",") + std::to_string(number);
    }
    return list.empty() ? "" : std::string(" AND ") + column + " IN (" + list + ")";
}

// The same for the ids that `find` gives for each of the names. One alone makes its own index lead; with more, the plus
// sign keeps the planner from an index in which the events do not stand in order of time.
std::string InNamed(Connection& connection, const std::string& column, const std::vector<std::string>& names,
                    const std::string& find)
{
    std::string list;
    int count = 0;
    for (const std::string& name : names) {
        for (SQLite::Statement& rows = connection.Prepare(find, name); rows.executeStep(); ++count) {
            list += (list.empty() ? "" : ",") + std::to_string(rows.getColumn(0).getInt64());
        }
    }
    if (names.empty()) {
        return "";
    }
    return count == 1 ? " AND " + column + " = " + list : " AND +" + column + " IN (" + list + ")";
}

// One event, as each statement begins its columns with it.
struct Event {
    int64_t began, ended, app, group;
    int32_t mode, appState, screenState, times;
};

// The events that the query asks for, and the columns that `more` names; at most `limit`, or all for -1.
SQLite::Statement& Select(Connection& connection, const PermissionUsageRecordQuery& query, const std::string& more,
                          const std::string& order, int64_t limit)
{
    Demand(query.GetOrder() == OLDEST_FIRST || query.GetOrder() == NEWEST_FIRST, RESULT_BAD_ORDER);
    Demand(query.GetLimit() >= 0, RESULT_BAD_LIMIT);
    const std::string users = In("user", query.GetUserIds());
    const std::string sql =
        "SELECT began, ended, usage.app, usage.permission_group, mode, app_state, screen_state, times" + more +
        " WHERE TRUE" +
        InNamed(connection, "usage.app", query.GetBundleNames(), "SELECT id FROM app WHERE bundle = ?" + users) +
        (users.empty() ? "" : " AND +usage.app IN (SELECT id FROM app WHERE TRUE" + users + ")") +
        InNamed(connection, "usage.permission_group", query.GetOperationGroups(),
                "SELECT id FROM permission_group WHERE name = ?") +
        In("mode", query.GetOperationModes()) + In("app_state", query.GetAppStates()) +
        In("screen_state", query.GetScreenStates()) + (query.GetBeginTimestamp() != 0 ? " AND began >= ?1" : "") +
        (query.GetEndTimestamp() != 0 ? " AND began < ?2" : "") + order + " LIMIT ?3";
    return connection.Prepare(sql, query.GetBeginTimestamp(), query.GetEndTimestamp(), limit);
}

// The bundle, uid and group are columns of `names`, from `first` on.
PermissionUsageRecord MakeRecord(const Event& event, const SQLite::Statement& names, int first)
{
    PermissionUsageRecord record;
    record.SetBundleName(names.getColumn(first));
    record.SetUid(names.getColumn(first + 1));
    record.SetOperationGroup(names.getColumn(first + 2));
    record.SetBeginTimestamp(event.began);
    record.SetEndTimestamp(event.ended);
    record.SetOperationMode(event.mode);
    record.SetAppState(event.appState);
    record.SetScreenState(event.screenState);
    record.SetTimes(event.times);
    return record;
}

}  // namespace

// Added up here and not by the statement: its GROUP BY sorts all events first, which takes five times as long.
int32_t SecurityPrivacyService::GetPermissionUsageSummary(const PermissionUsageRecordQuery& query,
                                                          std::vector<PermissionUsageRecord>& records)
{
    return Transact(&Database::Read, [&](Connection& connection) {
        std::map<std::array<int64_t, 5>, Event> sums;
        SQLite::Statement& events = Select(connection, query, " FROM usage", "", -1);
        while (events.executeStep()) {
            const auto event = events.getColumns<Event, 8>();
            const auto [place, isNew] =
                sums.try_emplace({event.app, event.group, event.mode, event.appState, event.screenState}, event);
            Demand(sums.size() <= MAX_SUMS, RESULT_ANSWER_TOO_LONG);
            if (!isNew) {
                Event& sum = place->second;
                sum.times = static_cast<int32_t>(
                    std::min<int64_t>(int64_t{sum.times} + event.times, std::numeric_limits<int32_t>::max()));
                sum.began = std::min(sum.began, event.began);
                sum.ended = std::max(sum.ended, event.ended);
            }
        }
        std::vector<PermissionUsageRecord> sorted;
        for (const auto& [key, sum] : sums) {
            SQLite::Statement& names = connection.Prepare(
                "SELECT bundle, uid, name FROM app, permission_group WHERE app.id = ? AND permission_group.id = ?",
                sum.app, sum.group);
            names.executeStep();
            sorted.push_back(MakeRecord(sum, names, 0));
        }
        const int64_t sign = query.GetOrder() == OLDEST_FIRST ? 1 : -1;
        const auto rank = [sign](const PermissionUsageRecord& sum) {
            return std::tuple(sign * sum.GetBeginTimestamp(), sum.GetBundleName(), sum.GetUid(),
                              sum.GetOperationGroup(), sum.GetOperationMode(), sum.GetAppState(), sum.GetScreenState());
        };
        std::sort(sorted.begin(), sorted.end(),
                  [&](const auto& left, const auto& right) { return rank(left) < rank(right); });
        sorted.resize(std::min(sorted.size(), static_cast<size_t>(MostRecords(query))));
        records.insert(records.end(), sorted.begin(), sorted.end());
    });
}

int32_t SecurityPrivacyService::GetPermissionUsageTimeline(const PermissionUsageRecordQuery& query,
                                                           std::vector<PermissionUsageRecord>& records)
{
    return Transact(&Database::Read, [&](Connection& connection) {
        SQLite::Statement& events =
            Select(connection, query,
                   ", bundle, uid, name FROM usage CROSS JOIN app ON app.id = usage.app "
                   "CROSS JOIN permission_group ON permission_group.id = usage.permission_group",
                   std::string(" ORDER BY began") + (query.GetOrder() == NEWEST_FIRST ? " DESC" : "") +
                       ", bundle, uid, name, mode, app_state, screen_state, usage.id",
                   MostRecords(query));
        while (events.executeStep()) {
            records.push_back(MakeRecord(events.getColumns<Event, 8>(), events, 8));
        }
    });
}

}  // namespace SecurityPrivacyTools
