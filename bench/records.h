// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

// What the benchmarks send around: plain structs with the fields of the library's records, under the same names, and
// one maker for each. Record `index` of every contender holds the same values, so that an answer can be checked without
// a copy of it.
namespace bench {

struct Info {
    std::string bundleName;  // 22 characters
    int32_t uid = 0;
    std::string permissionGroup;                     // 25 characters
    std::string checkedState;                        // 5 characters
    std::vector<std::string> shownStates;            // three
    std::unordered_set<std::string> disabledStates;  // one
    std::string disabledReason;
    int64_t flags = 0;
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
};

struct Row {
    std::string bundleName;
    std::string fingerprint;  // 64 characters
    int64_t versionCode = 0;
    int64_t policyValue = 0;
};

// By app: `name` is a bundle, `interested` are groups. By permission: the other way round.
struct InfoRequest {
    std::string name;
    int32_t userId = 0;
    std::unordered_set<std::string> interested;
};

struct SetRequest {
    std::string bundleName;
    int32_t uid = 0;
    std::string permissionGroup;
    std::string checkedState;
    int64_t flagsMask = 0;
    int64_t flagsValue = 0;
};

struct UsageRequest {
    std::vector<std::string> bundleNames;
    std::vector<int32_t> userIds;
    std::vector<std::string> operationGroups;
    int64_t beginTimestamp = 0;
    int64_t endTimestamp = 0;
    int32_t limit = 0;
    int32_t order = 0;
};

struct RowRequest {
    std::string policyName;
    std::vector<std::string> bundleNames;
};

std::string MakeBundleName(size_t index);
std::string MakeGroup(size_t index);
Info MakeInfo(size_t index);
Usage MakeUsage(size_t index);
Row MakeRow(size_t index);

// Records 0 to `count` - 1.
std::vector<Info> MakeInfos(size_t count);
std::vector<Usage> MakeUsages(size_t count);
std::vector<Row> MakeRows(size_t count);

InfoRequest MakeByAppRequest();
InfoRequest MakeByPermissionRequest();
SetRequest MakeSetRequest();
UsageRequest MakeUsageRequest();
RowRequest MakeRowRequest(size_t bundles);

}  // namespace bench
