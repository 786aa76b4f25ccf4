// SPDX-License-Identifier: Apache-2.0
//
// A query becomes one statement. What it filters by decides which index leads: one app or one group alone its own, in
// which its events stand in order of time; anything else the index of the span. So the events come in the order of the
// answer, and reading ends with it. The tables are joined in the order in which they are written (CROSS JOIN), or the
// planner would sort instead.
#include "service/usage_queries.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "common/result_codes.h"
#include "security_privacy/contract.h"

namespace SecurityPrivacyTools {
namespace {

constexpr int32_t OLDEST_FIRST = 0;
constexpr int32_t NEWEST_FIRST = 1;

// One more than an answer may carry.
constexpr int32_t MAX_READ = VARN::AppSecurityPrivacy::SecurityPrivacyServer::MAX_USAGE_RECORD_SIZE + 1;

// Sums that are kept while a summary is made: with many apps there may be more than memory should hold.
constexpr size_t MAX_SUMS = 65536;

int64_t MostRecords(const PermissionUsageRecordQuery& query)
{
    return query.GetLimit() == 0 ? MAX_READ : std::min(query.GetLimit(), MAX_READ);
}

int32_t CheckQuery(const PermissionUsageRecordQuery& query)
{
    if (query.GetOrder() != OLDEST_FIRST && query.GetOrder() != NEWEST_FIRST) {
        return RESULT_BAD_ORDER;
    }
    return query.GetLimit() < 0 ? RESULT_BAD_LIMIT : RESULT_OK;
}

// " AND column IN (?,?)", or nothing for a list that does not restrict.
template <class T>
std::string In(const char* column, const std::vector<T>& values)
{
    if (values.empty()) {
        return "";
    }
    std::string text = std::string(" AND ") + column + " IN (";
    for (size_t index = 0; index < values.size(); ++index) {
        text += index == 0 ? "?" : ",?";
    }
    return text + ")";
}

template <class T>
void BindAll(Statement& statement, const std::vector<T>& values)
{
    for (const T& value : values) {
        statement.Bind(value);
    }
}

// " AND column = id" when the names stand for exactly one row.
std::string OnlyOne(const char* column, Statement& find)
{
    if (!find.Step()) {
        return " AND FALSE";
    }
    const std::string id = std::to_string(find.Integer(0));
    return find.Step() ? "" : std::string(" AND ") + column + " = " + id;
}

std::string Where(Connection& connection, const PermissionUsageRecordQuery& query)
{
    const std::string apps = In("bundle", query.GetBundleNames()) + In("user", query.GetUserIds());
    const std::string groups = In("name", query.GetOperationGroups());
    // The plus signs keep the planner from an index in which the events do not stand in order of time.
    std::string where = " WHERE TRUE";
    where += apps.empty() ? "" : " AND +usage.app IN (SELECT id FROM app WHERE TRUE" + apps + ")";
    where += groups.empty()
                 ? ""
                 : " AND +usage.permission_group IN (SELECT id FROM permission_group WHERE TRUE" + groups + ")";
    if (!query.GetBundleNames().empty()) {
        Statement find(connection, "SELECT id FROM app WHERE TRUE" + apps + " LIMIT 2");
        BindAll(find, query.GetBundleNames());
        BindAll(find, query.GetUserIds());
        where += OnlyOne("usage.app", find);
    }
    if (!groups.empty()) {
        Statement find(connection, "SELECT id FROM permission_group WHERE TRUE" + groups + " LIMIT 2");
        BindAll(find, query.GetOperationGroups());
        where += OnlyOne("usage.permission_group", find);
    }
    where += In("mode", query.GetOperationModes()) + In("app_state", query.GetAppStates()) +
             In("screen_state", query.GetScreenStates());
    where += query.GetBeginTimestamp() != 0 ? " AND began >= ?" : "";
    where += query.GetEndTimestamp() != 0 ? " AND began < ?" : "";
    return where;
}

// Binds what `Where` left open.
void BindFilters(Statement& select, const PermissionUsageRecordQuery& query)
{
    BindAll(select, query.GetBundleNames());
    BindAll(select, query.GetUserIds());
    BindAll(select, query.GetOperationGroups());
    BindAll(select, query.GetOperationModes());
    BindAll(select, query.GetAppStates());
    BindAll(select, query.GetScreenStates());
    for (const int64_t bound : {query.GetBeginTimestamp(), query.GetEndTimestamp()}) {
        if (bound != 0) {
            select.Bind(bound);
        }
    }
}

// A record from columns in the order of the usage table, and its app's and group's names.
PermissionUsageRecord MakeRecord(std::string_view bundle, int32_t uid, std::string_view group, const Statement& row)
{
    PermissionUsageRecord record;
    record.SetBundleName(std::string(bundle));
    record.SetUid(uid);
    record.SetOperationGroup(std::string(group));
    record.SetBeginTimestamp(row.Integer(0));
    record.SetEndTimestamp(row.Integer(1));
    record.SetOperationMode(row.Int32(4));
    record.SetAppState(row.Int32(5));
    record.SetScreenState(row.Int32(6));
    record.SetTimes(row.Int32(7));
    return record;
}

PermissionUsageRecord FirstOfSum(Connection& connection, const Statement& row)
{
    Statement app(connection, "SELECT bundle, uid FROM app WHERE id = ?", row.Integer(2));
    Statement group(connection, "SELECT name FROM permission_group WHERE id = ?", row.Integer(3));
    app.Step();
    group.Step();
    return MakeRecord(app.Text(0), app.Int32(1), group.Text(0), row);
}

void AddUp(PermissionUsageRecord& sum, const Statement& row)
{
    const int64_t times = sum.GetTimes() + row.Integer(7);
    sum.SetTimes(static_cast<int32_t>(std::min<int64_t>(times, std::numeric_limits<int32_t>::max())));
    sum.SetBeginTimestamp(std::min(sum.GetBeginTimestamp(), row.Integer(0)));
    sum.SetEndTimestamp(std::max(sum.GetEndTimestamp(), row.Integer(1)));
}

constexpr const char* EVENTS =
    "SELECT began, ended, usage.app, usage.permission_group, mode, app_state, screen_state, times";

}  // namespace

// Added up here and not by the statement: its GROUP BY sorts all events first, which takes five times as long.
int32_t SummariseUsage(Connection& connection, const PermissionUsageRecordQuery& query,
                       std::vector<PermissionUsageRecord>& records)
{
    const int32_t result = CheckQuery(query);
    if (result != RESULT_OK) {
        return result;
    }
    Statement select(connection, std::string(EVENTS) + " FROM usage" + Where(connection, query));
    BindFilters(select, query);
    std::map<std::array<int64_t, 5>, PermissionUsageRecord> sums;
    while (select.Step()) {
        const std::array<int64_t, 5> key{select.Integer(2), select.Integer(3), select.Integer(4), select.Integer(5),
                                         select.Integer(6)};
        const auto sum = sums.find(key);
        if (sum != sums.end()) {
            AddUp(sum->second, select);
        } else if (sums.size() == MAX_SUMS) {
            return RESULT_ANSWER_TOO_LONG;
        } else {
            sums.emplace(key, FirstOfSum(connection, select));
        }
    }
    std::vector<PermissionUsageRecord> sorted;
    for (auto& [key, sum] : sums) {
        sorted.push_back(std::move(sum));
    }
    const int64_t sign = query.GetOrder() == OLDEST_FIRST ? 1 : -1;
    const auto place = [sign](const PermissionUsageRecord& sum) {
        return std::tuple(sign * sum.GetBeginTimestamp(), sum.GetBundleName(), sum.GetUid(), sum.GetOperationGroup(),
                          sum.GetOperationMode(), sum.GetAppState(), sum.GetScreenState());
    };
    std::sort(sorted.begin(), sorted.end(),
              [&](const auto& left, const auto& right) { return place(left) < place(right); });
    sorted.resize(std::min(sorted.size(), static_cast<size_t>(MostRecords(query))));
    std::move(sorted.begin(), sorted.end(), std::back_inserter(records));
    return RESULT_OK;
}

int32_t ListUsage(Connection& connection, const PermissionUsageRecordQuery& query,
                  std::vector<PermissionUsageRecord>& records)
{
    const int32_t result = CheckQuery(query);
    if (result != RESULT_OK) {
        return result;
    }
    Statement select(connection, std::string(EVENTS) +
                                     ", bundle, uid, name FROM usage CROSS JOIN app ON app.id = usage.app CROSS JOIN "
                                     "permission_group ON permission_group.id = usage.permission_group" +
                                     Where(connection, query) + " ORDER BY began" +
                                     (query.GetOrder() == NEWEST_FIRST ? " DESC" : "") +
                                     ", bundle, uid, name, mode, app_state, screen_state, usage.id LIMIT ?");
    BindFilters(select, query);
    select.Bind(MostRecords(query));
    while (select.Step()) {
        records.push_back(MakeRecord(select.Text(8), select.Int32(9), select.Text(10), select));
    }
    return RESULT_OK;
}

}  // namespace SecurityPrivacyTools
