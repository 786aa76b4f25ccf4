// SPDX-License-Identifier: Apache-2.0
#include "support/record_cases.h"

#include <cstdint>
#include <sstream>

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

template <class T>
sptr<Parcelable> Read(Parcel& parcel)
{
    return sptr<Parcelable>(T::Unmarshalling(parcel));
}

template <class... T>
std::vector<Value> Values(const T&... values)
{
    return {Value(values)...};
}

template <class T>
RecordCase MakeCase(const std::string& name, const std::string& module, std::vector<Value> values)
{
    Parcel parcel;
    Put(parcel, values);
    return {name,    module,
            values,  Read<T>(parcel),
            Read<T>, [](const Parcelable& any) { return dynamic_cast<const T&>(any).ToString(); }};
}

Record::PermissionUsageRecord MakePermissionUsageRecord()
{
    Record::PermissionUsageRecord record;
    record.SetBundleName("com.example.maps");
    record.SetUid(INT32_MIN);
    record.SetOperationGroup("op's %n group");
    record.SetTimes(INT32_MAX);
    record.SetOperationMode(-3);
    record.SetAppState(4);
    record.SetScreenState(-5);
    record.SetBeginTimestamp(INT64_MIN);
    record.SetEndTimestamp(INT64_MAX);
    return record;
}

Record::PermissionUsageRecordQuery MakePermissionUsageRecordQuery()
{
    Record::PermissionUsageRecordQuery query;
    query.SetBundleNames({"com.example.maps", "", "com.example.maps"});
    query.SetUserIds({100, 100, 0});
    query.SetOperationGroups({"LOCATION"});
    query.SetOperationModes({INT32_MIN, INT32_MAX});
    query.SetAppStates({});
    query.SetScreenStates({-7, 8});
    query.SetBeginTimestamp(INT64_MIN + 1);
    query.SetEndTimestamp(1700000000123);
    query.SetLimit(-50);
    query.SetOrder(INT32_MAX - 2);
    return query;
}

std::vector<RecordCase> MakeRecordCases()
{
    const std::string print = std::string(SECRET) + ":11";
    const std::string otherPrint = std::string(SECRET) + ":22";
    std::vector<RecordCase> cases = {
        // One disabled state: the text form follows the set's own order, which reading may change.
        MakeCase<Permission::AppPermissionGroupInfo>(
            "AppPermissionGroupInfo", "permission",
            {"com.example.camera", -20010017, "group.LOCATION", "100%s of 'use'", 3, "always", "",
             "во время использования", 1, "never", "set by %d admins", INT64_MIN}),
        MakeCase<Permission::CheckedStateParameter>("CheckedStateParameter", "permission",
                                                    {"while in use", int64_t{-1}, INT64_MAX - 1}),
        MakeCase<Record::PermissionUsageRecord>(
            "PermissionUsageRecord", "",
            {"com.example.maps", INT32_MIN, "op's %n group", INT32_MAX, -3, 4, -5, INT64_MIN, INT64_MAX}),
        MakeCase<Record::PermissionUsageRecordQuery>(
            "PermissionUsageRecordQuery", "",
            Values(3, "com.example.maps", "", "com.example.maps", 3, 100, 100, 0, 1, "LOCATION", 2, INT32_MIN,
                   INT32_MAX, 0, 2, -7, 8, INT64_MIN + 1, int64_t{1700000000123}, -50, INT32_MAX - 2)),
        MakeCase<GTokenPolicy>("GTokenPolicy", "GToken", {"camera", int64_t{-3}}),
        MakeCase<GTokenInfo>("GTokenInfo", "GToken",
                             {"com.example.bank", print, INT64_MIN + 2, 3, "screenshot", int64_t{1}, "", INT64_MAX,
                              "over%slay", int64_t{-2}}),
        MakeCase<GTokenResult>("GTokenResult", "GToken",
                               {"com.example.wallet", otherPrint, INT64_MAX - 3, int64_t{-4}}),
        MakeCase<GTokenResultWithRet>("GTokenResultWithRet", "GToken",
                                      {int64_t{-5000000000}, 2, "com.example.wallet", otherPrint, INT64_MAX - 3,
                                       int64_t{-4}, "com.example.other", "", int64_t{0}, INT64_MIN}),
    };
    // These two go through their setters.
    cases[2].record = sptr<Parcelable>(new Record::PermissionUsageRecord(MakePermissionUsageRecord()));
    cases[3].record = sptr<Parcelable>(new Record::PermissionUsageRecordQuery(MakePermissionUsageRecordQuery()));
    return cases;
}

// Made before any test listens to the log.
const bool isMade = !RecordCases().empty();

void PutToken(Parcel& parcel, std::string token, size_t number)
{
    const size_t star = token.find('*');
    if (token.front() != '\'' && star != std::string::npos) {
        for (size_t i = 0; i < std::stoul(token); ++i) {
            PutToken(parcel, token.substr(star + 1), i);
        }
    } else if (const size_t comma = token.find(','); comma != std::string::npos) {
        PutToken(parcel, token.substr(0, comma), number);
        PutToken(parcel, token.substr(comma + 1), number);
    } else if (token.front() == '\'') {
        const size_t mark = token.find('#');
        Put(parcel, (mark == std::string::npos ? token : token.replace(mark, 1, std::to_string(number)))
                        .substr(1, token.size() - 2));
    } else if (token.front() == '@') {
        parcel.WriteParcelable(CaseOf(token.substr(1)).record.Get());
    } else if (token.back() == 'L') {
        Put(parcel, static_cast<int64_t>(std::stoll(token)));
    } else {
        Put(parcel, static_cast<int32_t>(std::stol(token)));
    }
}

}  // namespace

const std::vector<RecordCase>& RecordCases()
{
    static const std::vector<RecordCase> cases = MakeRecordCases();
    return cases;
}

const RecordCase& CaseOf(const std::string& name)
{
    return *std::find_if(RecordCases().begin(), RecordCases().end(),
                         [&name](const RecordCase& record) { return record.name == name; });
}

void PutText(Parcel& parcel, const std::string& values, size_t number)
{
    std::istringstream tokens(values);
    for (std::string token; tokens >> token;) {
        PutToken(parcel, token, number);
    }
}

std::vector<std::string> MakeNames(size_t count, const std::string& prefix)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < count; ++i) {
        names.push_back(prefix + std::to_string(i));
    }
    return names;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
