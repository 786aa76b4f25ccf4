// SPDX-License-Identifier: Apache-2.0
//
// A query becomes one statement. What it filters by decides which index leads: one app or one group alone its own, in
// which its events stand in order of time; anything else the index of the span. So the events come in the order of the
// answer, and reading ends with it. The tables are joined in the order in which they are written (CROSS JOIN), or the
// planner would sort instead.
#include "service/usage_queries.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "common/result_codes.h"
#include "security_privacy/contract.h"

namespace SecurityPrivacyExample {
namespace {

constexpr int32_t OLDEST_FIRST = 0;
constexpr int32_t NEWEST_FIRST = 1;

// One more than an answer may carry.
constexpr int32_t MAX_READ = VARN::AppSecurityPrivacy::SecurityPrivacyServer::MAX_USAGE_RECORD_SIZE + 1;

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
    std::string where = " WHERE TRUE" + apps + groups;
    if (!query.GetBundleNames().empty()) {
        Statement find(connection, "SELECT id FROM app WHERE TRUE" + apps + " LIMIT 2");
        BindAll(find, query.GetBundleNames());
        BindAll(find, query.GetUserIds());
        where += OnlyOne("app", find);
    }
    if (!groups.empty()) {
        Statement find(connection, "SELECT id FROM permission_group WHERE TRUE" + groups + " LIMIT 2");
        BindAll(find, query.GetOperationGroups());
        where += OnlyOne("permission_group", find);
    }
    where += In("mode", query.GetOperationModes()) + In("app_state", query.GetAppStates()) +
             In("screen_state", query.GetScreenStates());
    where += query.GetBeginTimestamp() != 0 ? " AND began >= ?" : "";
    where += query.GetEndTimestamp() != 0 ? " AND began < ?" : "";
    return where;
}

// Runs SELECT columns FROM the events that the query admits, grouped by `grouping`.
int32_t Run(Connection& connection, const PermissionUsageRecordQuery& query, const std::string& columns,
            const char* grouping, std::vector<PermissionUsageRecord>& records)
{
    const int32_t result = CheckQuery(query);
    if (result != RESULT_OK) {
        return result;
    }
    Statement select(connection, "SELECT bundle, uid, name, mode, app_state, screen_state, " + columns +
                                     " FROM usage CROSS JOIN app ON app.id = usage.app CROSS JOIN permission_group ON "
                                     "permission_group.id = usage.permission_group" +
                                     Where(connection, query) + grouping + " ORDER BY first" +
                                     (query.GetOrder() == NEWEST_FIRST ? " DESC" : "") +
                                     ", bundle, uid, name, mode, app_state, screen_state, usage.id LIMIT ?");
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
    select.Bind(int64_t{query.GetLimit() == 0 ? MAX_READ : std::min(query.GetLimit(), MAX_READ)});
    while (select.Step()) {
        PermissionUsageRecord record;
        record.SetBundleName(std::string(select.Text(0)));
        record.SetUid(select.Int32(1));
        record.SetOperationGroup(std::string(select.Text(2)));
        record.SetOperationMode(select.Int32(3));
        record.SetAppState(select.Int32(4));
        record.SetScreenState(select.Int32(5));
        record.SetTimes(
            static_cast<int32_t>(std::min<int64_t>(select.Integer(6), std::numeric_limits<int32_t>::max())));
        record.SetBeginTimestamp(select.Integer(7));
        record.SetEndTimestamp(select.Integer(8));
        records.push_back(std::move(record));
    }
    return RESULT_OK;
}

}  // namespace

int32_t SummariseUsage(Connection& connection, const PermissionUsageRecordQuery& query,
                       std::vector<PermissionUsageRecord>& records)
{
    return Run(connection, query, "sum(times), min(began) AS first, max(ended)",
               " GROUP BY usage.app, usage.permission_group, mode, app_state, screen_state", records);
}

int32_t ListUsage(Connection& connection, const PermissionUsageRecordQuery& query,
                  std::vector<PermissionUsageRecord>& records)
{
    return Run(connection, query, "times, began AS first, ended", "", records);
}

}  // namespace SecurityPrivacyExample
