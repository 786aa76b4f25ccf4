// SPDX-License-Identifier: Apache-2.0
#include "service/usage_evaluation.h"

#include <algorithm>
#include <limits>
#include <map>
#include <tuple>

#include "common/result_codes.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;

constexpr int32_t OLDEST_FIRST = 0;
constexpr int32_t NEWEST_FIRST = 1;

int32_t CheckQuery(const PermissionUsageRecordQuery& query)
{
    if (query.GetOrder() != OLDEST_FIRST && query.GetOrder() != NEWEST_FIRST) {
        return RESULT_BAD_ORDER;
    }
    return query.GetLimit() < 0 ? RESULT_BAD_LIMIT : RESULT_OK;
}

template <class T>
bool Admits(const std::vector<T>& filter, const T& value)
{
    return filter.empty() || std::find(filter.begin(), filter.end(), value) != filter.end();
}

bool IsWanted(const PermissionUsageRecordQuery& query, const UsageEvent& event)
{
    const PermissionUsageRecord& record = event.record;
    const int64_t begin = record.GetBeginTimestamp();
    return (query.GetBeginTimestamp() == 0 || begin >= query.GetBeginTimestamp()) &&
           (query.GetEndTimestamp() == 0 || begin < query.GetEndTimestamp()) &&
           Admits(query.GetUserIds(), event.userId) && Admits(query.GetOperationModes(), record.GetOperationMode()) &&
           Admits(query.GetAppStates(), record.GetAppState()) &&
           Admits(query.GetScreenStates(), record.GetScreenState()) &&
           Admits(query.GetOperationGroups(), record.GetOperationGroup()) &&
           Admits(query.GetBundleNames(), record.GetBundleName());
}

// What a summary does not add up.
auto SummaryKey(const PermissionUsageRecord& record)
{
    return std::make_tuple(record.GetBundleName(), record.GetUid(), record.GetOperationGroup(),
                           record.GetOperationMode(), record.GetAppState(), record.GetScreenState());
}

void AddUp(PermissionUsageRecord& sum, const PermissionUsageRecord& record)
{
    const int64_t times = int64_t{sum.GetTimes()} + record.GetTimes();
    sum.SetTimes(static_cast<int32_t>(std::min<int64_t>(times, std::numeric_limits<int32_t>::max())));
    sum.SetBeginTimestamp(std::min(sum.GetBeginTimestamp(), record.GetBeginTimestamp()));
    sum.SetEndTimestamp(std::max(sum.GetEndTimestamp(), record.GetEndTimestamp()));
}

void AppendInOrder(std::vector<PermissionUsageRecord> selected, const PermissionUsageRecordQuery& query,
                   std::vector<PermissionUsageRecord>& records)
{
    std::stable_sort(selected.begin(), selected.end(), [&](const auto& left, const auto& right) {
        if (left.GetBeginTimestamp() != right.GetBeginTimestamp()) {
            return (left.GetBeginTimestamp() < right.GetBeginTimestamp()) == (query.GetOrder() == OLDEST_FIRST);
        }
        return SummaryKey(left) < SummaryKey(right);
    });
    const auto limit = static_cast<size_t>(query.GetLimit());
    const size_t count = limit == 0 ? selected.size() : std::min(limit, selected.size());
    records.insert(records.end(), selected.begin(), selected.begin() + static_cast<std::ptrdiff_t>(count));
}

}  // namespace

int32_t SummariseUsage(const std::vector<UsageEvent>& events, const PermissionUsageRecordQuery& query,
                       std::vector<PermissionUsageRecord>& records)
{
    const int32_t result = CheckQuery(query);
    if (result != RESULT_OK) {
        return result;
    }
    std::map<decltype(SummaryKey(PermissionUsageRecord())), PermissionUsageRecord> sums;
    for (const UsageEvent& event : events) {
        if (!IsWanted(query, event)) {
            continue;
        }
        const auto [sum, isNew] = sums.try_emplace(SummaryKey(event.record), event.record);
        if (!isNew) {
            AddUp(sum->second, event.record);
        }
    }
    std::vector<PermissionUsageRecord> selected;
    selected.reserve(sums.size());
    for (auto& [key, sum] : sums) {
        selected.push_back(std::move(sum));
    }
    AppendInOrder(std::move(selected), query, records);
    return RESULT_OK;
}

int32_t ListUsage(const std::vector<UsageEvent>& events, const PermissionUsageRecordQuery& query,
                  std::vector<PermissionUsageRecord>& records)
{
    const int32_t result = CheckQuery(query);
    if (result != RESULT_OK) {
        return result;
    }
    std::vector<PermissionUsageRecord> selected;
    for (const UsageEvent& event : events) {
        if (IsWanted(query, event)) {
            selected.push_back(event.record);
        }
    }
    AppendInOrder(std::move(selected), query, records);
    return RESULT_OK;
}

}  // namespace SecurityPrivacyExample
