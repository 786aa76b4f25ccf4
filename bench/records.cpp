// SPDX-License-Identifier: Apache-2.0
#include "bench/records.h"

#include <array>

namespace bench {
namespace {

constexpr size_t kGroups = 8;
constexpr size_t kInterested = 5;
constexpr int32_t kFirstUid = 20010000;
constexpr int64_t kFirstTimestamp = 1700000000000;
constexpr int64_t kPeriod = 60000;

std::string Digits(size_t number, size_t width)
{
    const std::string digits = std::to_string(number);
    return std::string(width - digits.size(), '0') + digits;
}

template <class T>
std::vector<T> MakeMany(size_t count, T (*make)(size_t))
{
    std::vector<T> many;
    many.reserve(count);
    for (size_t index = 0; index < count; ++index) {
        many.push_back(make(index));
    }
    return many;
}

}  // namespace

std::string MakeBundleName(size_t index)
{
    return "com.example.app" + Digits(index, 7);
}

std::string MakeGroup(size_t index)
{
    static const std::array<const char*, kGroups> names = {"location", "contacts", "calendar", "messages",
                                                           "pictures", "activity", "notebook", "recorder"};
    return std::string("permission.group.") + names[index % kGroups];
}

Info MakeInfo(size_t index)
{
    Info info;
    info.bundleName = MakeBundleName(index);
    info.uid = kFirstUid + static_cast<int32_t>(index);
    info.permissionGroup = MakeGroup(index);
    info.checkedState = "allow";
    info.shownStates = {"allow", "block", "query"};
    info.disabledStates = {"query"};
    info.disabledReason = "managed";
    info.flags = -static_cast<int64_t>(index);
    return info;
}

Usage MakeUsage(size_t index)
{
    Usage usage;
    usage.bundleName = MakeBundleName(index);
    usage.uid = kFirstUid + static_cast<int32_t>(index);
    usage.operationGroup = MakeGroup(index);
    usage.times = static_cast<int32_t>(index % 100) + 1;
    usage.operationMode = 1;
    usage.appState = 2;
    usage.screenState = 3;
    usage.beginTimestamp = kFirstTimestamp + kPeriod * static_cast<int64_t>(index);
    usage.endTimestamp = usage.beginTimestamp + kPeriod;
    return usage;
}

Row MakeRow(size_t index)
{
    return {MakeBundleName(index), Digits(index, 64), 1000000 + static_cast<int64_t>(index), -7};
}

std::vector<Info> MakeInfos(size_t count)
{
    return MakeMany(count, MakeInfo);
}

std::vector<Usage> MakeUsages(size_t count)
{
    return MakeMany(count, MakeUsage);
}

std::vector<Row> MakeRows(size_t count)
{
    return MakeMany(count, MakeRow);
}

InfoRequest MakeByAppRequest()
{
    InfoRequest request{MakeBundleName(1), 100, {}};
    for (size_t index = 0; index < kInterested; ++index) {
        request.interested.insert(MakeGroup(index));
    }
    return request;
}

InfoRequest MakeByPermissionRequest()
{
    InfoRequest request{MakeGroup(1), 100, {}};
    for (size_t index = 0; index < kInterested; ++index) {
        request.interested.insert(MakeBundleName(index));
    }
    return request;
}

SetRequest MakeSetRequest()
{
    return {MakeBundleName(1), kFirstUid, MakeGroup(1), "block", 255, 3};
}

UsageRequest MakeUsageRequest()
{
    return {
        {MakeBundleName(1), MakeBundleName(2)}, {100}, {MakeGroup(1)}, kFirstTimestamp, kFirstTimestamp * 2, 10000, 1};
}

RowRequest MakeRowRequest(size_t bundles)
{
    RowRequest request{"camera", {}};
    for (size_t index = 0; index < bundles; ++index) {
        request.bundleNames.push_back(MakeBundleName(index));
    }
    return request;
}

}  // namespace bench
