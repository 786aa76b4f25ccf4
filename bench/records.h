// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_set>
#include <vector>

// What the benchmarks send around: plain structs with the fields of the library's records, under the same names, and
// one maker for each. `Fields` lists the fields of a struct, or of another class that has them too, so that a contender
// carries, copies and compares them all with one loop.
namespace bench {

// The five requests that are measured, and `none`: a request with empty fields and nothing to bring back.
enum class Case { kSmall, kBulk, kLeast, kUsage, kToken, kNone };

// Throws for a name that is none.
Case CaseNamed(const std::string& name);

// One case as the command line gives it.
struct Workload {
    Case kind = Case::kNone;
    size_t records = 0;       // how many records come back
    size_t requestBytes = 0;  // for the contender without a codec: the length of its messages
    size_t replyBytes = 0;
};

struct Info {
    std::string bundleName;  // 22 characters
    int32_t uid = 0;
    std::string permissionGroup;                     // 25 characters
    std::string checkedState;                        // 5 characters
    std::vector<std::string> shownStates;            // three
    std::unordered_set<std::string> disabledStates;  // one
    std::string disabledReason;
    int64_t flags = 0;

    template <class T>
    static auto Fields(T& info)
    {
        return std::tie(info.bundleName, info.uid, info.permissionGroup, info.checkedState, info.shownStates,
                        info.disabledStates, info.disabledReason, info.flags);
    }
};

struct Usage {
    std::string bundleName;
    int32_t uid = 0;
    std::string operationGroup;
    int32_t times = 0;
    int32_t operationMode = 0;
    int32_t appState = 0;
    int32_t screenState = 0;
    int64_t beginTimestamp = 0;
    int64_t endTimestamp = 0;

    template <class T>
    static auto Fields(T& usage)
    {
        return std::tie(usage.bundleName, usage.uid, usage.operationGroup, usage.times, usage.operationMode,
                        usage.appState, usage.screenState, usage.beginTimestamp, usage.endTimestamp);
    }
};

struct Row {
    std::string bundleName;
    std::string fingerprint;  // 64 characters
    int64_t versionCode = 0;
    int64_t policyValue = 0;

    template <class T>
    static auto Fields(T& row)
    {
        return std::tie(row.bundleName, row.fingerprint, row.versionCode, row.policyValue);
    }
};

// By app: `name` is a bundle, `interested` are groups. By permission: the other way round.
struct InfoRequest {
    using Answer = std::vector<Info>;
    static constexpr uint32_t kOperation = 0;

    bool isByPermission = false;  // which operation of the library's; does not travel
    std::string name;
    int32_t userId = 0;
    std::unordered_set<std::string> interested;

    template <class T>
    static auto Fields(T& request)
    {
        return std::tie(request.name, request.userId, request.interested);
    }
};

struct SetRequest {
    using Answer = bool;
    static constexpr uint32_t kOperation = 1;

    std::string bundleName;
    int32_t uid = 0;
    std::string permissionGroup;
    std::string checkedState;
    int64_t flagsMask = 0;
    int64_t flagsValue = 0;

    template <class T>
    static auto Fields(T& request)
    {
        return std::tie(request.bundleName, request.uid, request.permissionGroup, request.checkedState,
                        request.flagsMask, request.flagsValue);
    }
};

struct UsageRequest {
    using Answer = std::vector<Usage>;
    static constexpr uint32_t kOperation = 2;

    std::vector<std::string> bundleNames;
    std::vector<int32_t> userIds;
    std::vector<std::string> operationGroups;
    int64_t beginTimestamp = 0;
    int64_t endTimestamp = 0;
    int32_t limit = 0;
    int32_t order = 0;

    template <class T>
    static auto Fields(T& request)
    {
        return std::tie(request.bundleNames, request.userIds, request.operationGroups, request.beginTimestamp,
                        request.endTimestamp, request.limit, request.order);
    }
};

struct RowRequest {
    using Answer = std::vector<Row>;
    static constexpr uint32_t kOperation = 3;

    std::string policyName;
    std::vector<std::string> bundleNames;

    template <class T>
    static auto Fields(T& request)
    {
        return std::tie(request.policyName, request.bundleNames);
    }
};

// Whether T is one of the structs above.
template <class T, class = void>
inline constexpr bool kHasFields = false;
template <class T>
inline constexpr bool kHasFields<T, std::void_t<decltype(T::Fields(std::declval<T&>()))>> = true;

// The fields of a record that an answer brought, in the order of `Plain`.
template <class Plain, class Record>
auto FieldsOf(const Record& record)
{
    return Plain::Fields(record);
}

// Record `index` holds the same values in every contender, so that an answer can be checked without a copy of it.
void Make(size_t index, Info& info);
void Make(size_t index, Usage& usage);
void Make(size_t index, Row& row);

// Records 0 to `count` - 1.
template <class Record>
std::vector<Record> MakeMany(size_t count)
{
    std::vector<Record> records(count);
    for (size_t index = 0; index < count; ++index) {
        Make(index, records[index]);
    }
    return records;
}

InfoRequest MakeByAppRequest();
InfoRequest MakeByPermissionRequest();
SetRequest MakeSetRequest();
UsageRequest MakeUsageRequest();
RowRequest MakeRowRequest(size_t bundles);

}  // namespace bench
