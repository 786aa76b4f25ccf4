// SPDX-License-Identifier: Apache-2.0
#include "support/record_cases.h"

#include <algorithm>

#include "support/log_capture.h"
#include "support/records.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Permission::AppPermissionGroupInfo;
using Permission::CheckedStateParameter;
using Record::PermissionUsageRecord;
using Record::PermissionUsageRecordQuery;

// The regular messages: "WriteInt32 uid=-1 succeed." and "ReadInt32 to uid=-1 succeed.".
FieldStep Step(const std::string& type, const std::string& name, const std::string& shown, const Value& value)
{
    const std::string assigned = name + "=" + shown + " succeed.";
    return {value, {"Write" + type + " " + assigned}, {"Read" + type + " to " + assigned}};
}
FieldStep String(const std::string& name, const std::string& value)
{
    return Step("String", name, "'" + value + "'", value);
}
FieldStep Int32(const std::string& name, int32_t value)
{
    return Step("Int32", name, std::to_string(value), value);
}
FieldStep Int64(const std::string& name, int64_t value)
{
    return Step("Int64", name, std::to_string(value), value);
}

FieldStep Masked(const std::string& value)
{
    return {value, {"WriteString fingerprint succeed."}, {"ReadString to fingerprint succeed."}};
}

std::vector<FieldStep> Silent(const std::vector<Value>& values)
{
    std::vector<FieldStep> steps;
    for (const Value& value : values) {
        steps.push_back({value, {}, {}});
    }
    return steps;
}

template <class T>
RecordCase MakeCase(const std::string& name, const std::string& module, const T& record, const std::string& text,
                    const std::string& defaultText, std::vector<FieldStep> steps)
{
    return {name,
            module,
            sptr<Parcelable>(new T(record)),
            sptr<Parcelable>(new T()),
            [](Parcel& parcel) { return sptr<Parcelable>(T::Unmarshalling(parcel)); },
            [](const Parcelable& any) { return dynamic_cast<const T&>(any).ToString(); },
            text,
            defaultText,
            std::move(steps)};
}

std::vector<RecordCase> MakeRecordCases()
{
    const GTokenInfo info = MakeGTokenInfo();
    const GTokenResult result = MakeGTokenResult();
    const std::string minimum = "-9223372036854775808";
    const std::string policies =
        "[GTokenPolicy{policyName='screenshot', policyValue=1}, GTokenPolicy{policyName='', "
        "policyValue=9223372036854775807}, GTokenPolicy{policyName='over%slay', policyValue=-2}]";
    const std::string resultText =
        "GTokenResult{bundleName='com.example.wallet', fingerprint=xxx, versionCode=9223372036854775804, "
        "policyValue=-4}";

    return {
        MakeCase(
            "AppPermissionGroupInfo", "permission", MakeAppPermissionGroupInfo(),
            "AppPermissionGroupInfo{bundleName='com.example.camera', uid=-20010017, "
            "permissionGroup='group.LOCATION', checkedState='100%s of 'use'', shownStates=['always', '', "
            "'во время использования'], disabledStates={'never'}, disabledReason='set by %d admins', flags=" +
                minimum + "}",
            "AppPermissionGroupInfo{bundleName='', uid=0, permissionGroup='', checkedState='', shownStates=[], "
            "disabledStates={}, disabledReason='', flags=0}",
            {String("bundleName", "com.example.camera"),
             Int32("uid", -20010017),
             String("permissionGroup", "group.LOCATION"),
             String("checkedState", "100%s of 'use'"),
             {3,
              {"WriteInt32 shownStatesSize=3 succeed."},
              {"ReadInt32 to shownStatesSizeRead=3 succeed.", "shownStatesSizeRead check succeed."}},
             {"always", {"WriteString shownState='always' succeed."}, {"ReadString shownState='always' succeed."}},
             {"", {"WriteString shownState='' succeed."}, {"ReadString shownState='' succeed."}},
             {"во время использования",
              {"WriteString shownState='во время использования' succeed."},
              {"ReadString shownState='во время использования' succeed."}},
             {1,
              {"WriteInt32 disabledStatesSize=1 succeed."},
              {"ReadInt32 to disabledStatesSizeRead=1 succeed.", "disabledStatesSizeRead check succeed."}},
             {"never", {"WriteString disabledState='never' succeed."}, {"ReadString disabledState='never' succeed."}},
             String("disabledReason", "set by %d admins"),
             Int64("flags", INT64_MIN)}),
        MakeCase("CheckedStateParameter", "permission", MakeCheckedStateParameter(),
                 "CheckedStateParameter{checkedState='while in use', flagsMask=-1, flagsValue=9223372036854775806}",
                 "CheckedStateParameter{checkedState='', flagsMask=0, flagsValue=0}",
                 {String("checkedState", "while in use"), Int64("flagsMask", -1), Int64("flagsValue", INT64_MAX - 1)}),
        MakeCase("PermissionUsageRecord", "", MakePermissionUsageRecord(),
                 "PermissionUsageRecord{bundleName='com.example.maps', uid=-2147483648, times=2147483647, "
                 "operationGroup='op's %n group', operationMode=-3, appState=4, screenState=-5, beginTimestamp=" +
                     minimum + ", endTimestamp=9223372036854775807}",
                 "PermissionUsageRecord{bundleName='', uid=-1, times=0, operationGroup='', operationMode=0, "
                 "appState=0, screenState=0, beginTimestamp=0, endTimestamp=0}",
                 Silent({"com.example.maps", INT32_MIN, "op's %n group", INT32_MAX, -3, 4, -5, INT64_MIN, INT64_MAX})),
        MakeCase("PermissionUsageRecordQuery", "", MakePermissionUsageRecordQuery(),
                 "PermissionUsageRecordQuery{bundleNames=['com.example.maps', '', 'com.example.maps'], userIds=[100, "
                 "100, 0], operationGroups=['LOCATION'], operationModes=[-2147483648, 2147483647], appStates=[], "
                 "screenStates=[-7, 8], beginTimestamp=-9223372036854775807, endTimestamp=1700000000123, limit=-50, "
                 "order=2147483645}",
                 "PermissionUsageRecordQuery{bundleNames=[], userIds=[], operationGroups=[], operationModes=[], "
                 "appStates=[], screenStates=[], beginTimestamp=0, endTimestamp=0, limit=0, order=0}",
                 Silent({3,
                         "com.example.maps",
                         "",
                         "com.example.maps",
                         3,
                         100,
                         100,
                         0,
                         1,
                         "LOCATION",
                         2,
                         INT32_MIN,
                         INT32_MAX,
                         0,
                         2,
                         -7,
                         8,
                         INT64_MIN + 1,
                         int64_t{1700000000123},
                         -50,
                         INT32_MAX - 2})),
        MakeCase("GTokenPolicy", "GToken", MakeGTokenPolicy(), "GTokenPolicy{policyName='camera', policyValue=-3}",
                 "GTokenPolicy{policyName='', policyValue=0}",
                 {String("policyName", "camera"), Int64("policyValue", -3)}),
        MakeCase("GTokenInfo", "GToken", info,
                 "GTokenInfo{bundleName='com.example.bank', fingerprint=xxx, versionCode=-9223372036854775806, "
                 "policies=" +
                     policies + "}",
                 "GTokenInfo{bundleName='', fingerprint=xxx, versionCode=0, policies=[]}",
                 {String("bundleName", "com.example.bank"), Masked(info.fingerprint),
                  Int64("versionCode", INT64_MIN + 2), Int32("policiesSize", 3), String("policyName", "screenshot"),
                  Int64("policyValue", 1), String("policyName", ""), Int64("policyValue", INT64_MAX),
                  String("policyName", "over%slay"), Int64("policyValue", -2)}),
        MakeCase("GTokenResult", "GToken", result, resultText,
                 "GTokenResult{bundleName='', fingerprint=xxx, versionCode=0, policyValue=0}",
                 {String("bundleName", "com.example.wallet"), Masked(result.fingerprint),
                  Int64("versionCode", INT64_MAX - 3), Int64("policyValue", -4)}),
        MakeCase("GTokenResultWithRet", "GToken", MakeGTokenResultWithRet(),
                 "GTokenResultWithRet{ret=-5000000000, gTokenResults=[" + resultText +
                     ", GTokenResult{bundleName='com.example.other', fingerprint=xxx, versionCode=0, policyValue=" +
                     minimum + "}]}",
                 "GTokenResultWithRet{ret=0, gTokenResults=[]}",
                 {Int64("ret", -5000000000), Int32("gTokenResultsSize", 2), String("bundleName", "com.example.wallet"),
                  Masked(result.fingerprint), Int64("versionCode", INT64_MAX - 3), Int64("policyValue", -4),
                  String("bundleName", "com.example.other"), Masked(""), Int64("versionCode", 0),
                  Int64("policyValue", INT64_MIN)}),
    };
}

}  // namespace

std::string RecordCase::Lines(size_t count, const char* function, std::vector<std::string> FieldStep::*messages) const
{
    std::string lines;
    for (size_t i = 0; i < std::min(count, steps.size()); ++i) {
        for (const std::string& message : steps[i].*messages) {
            lines += Line(DEBUG, function, message, module);
        }
    }
    return lines;
}

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

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
