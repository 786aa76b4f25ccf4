// SPDX-License-Identifier: Apache-2.0
#include "support/record_cases.h"

#include <iomanip>
#include <sstream>

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

template <class T>
RecordCase MakeCase(const std::string& name, const std::string& module, const std::string& values)
{
    RecordCase made{name,
                    module,
                    values,
                    [](Parcel& parcel) { return sptr<Parcelable>(T::Unmarshalling(parcel)); },
                    [](const Parcelable& any) { return dynamic_cast<const T&>(any).ToString(); },
                    nullptr};
    Parcel parcel;
    PutText(parcel, values);
    made.record = made.unmarshal(parcel);
    return made;
}

// Made before any test listens to the log.
const std::vector<RecordCase> recordCases = {
    // One disabled state: the text form follows the set's own order, which reading may change.
    MakeCase<Permission::AppPermissionGroupInfo>(
        "AppPermissionGroupInfo", "permission",
        R"('com.example.camera' -20010017 'group.LOCATION' '100%s of \'use\'' 3 'always' '' 'во время использования'
           1 'never' 'set by %d admins' -9223372036854775808L)"),
    MakeCase<Permission::CheckedStateParameter>("CheckedStateParameter", "permission",
                                                "'while in use' -1L 9223372036854775806L"),
    MakeCase<Record::PermissionUsageRecord>("PermissionUsageRecord", "",
                                            R"('com.example.maps' -2147483648 'op\'s %n group' 2147483647 -3 4 -5
           -9223372036854775808L 9223372036854775807L)"),
    MakeCase<Record::PermissionUsageRecordQuery>(
        "PermissionUsageRecordQuery", "",
        "3 'com.example.maps' '' 'com.example.maps' 3 100 100 0 1 'LOCATION' 2 -2147483648 2147483647 0 2 -7 8 "
        "-9223372036854775807L 1700000000123L -50 2147483645"),
    MakeCase<GTokenPolicy>("GTokenPolicy", "GToken", "'camera' -3L"),
    MakeCase<GTokenInfo>("GTokenInfo", "GToken",
                         "'com.example.bank' '5E:C4:E7:11' -9223372036854775806L 3 'screenshot' 1L "
                         "'' 9223372036854775807L 'over%slay' -2L"),
    MakeCase<GTokenResult>("GTokenResult", "GToken", "'com.example.wallet' '5E:C4:E7:22' 9223372036854775804L -4L"),
    MakeCase<GTokenResultWithRet>("GTokenResultWithRet", "GToken",
                                  "-5000000000L 2 'com.example.wallet' '5E:C4:E7:22' 9223372036854775804L -4L "
                                  "'com.example.other' '' 0L -9223372036854775808L"),
};

}  // namespace

const std::vector<RecordCase>& RecordCases()
{
    return recordCases;
}

const RecordCase& CaseOf(const std::string& name)
{
    return *std::find_if(recordCases.begin(), recordCases.end(),
                         [&name](const RecordCase& record) { return record.name == name; });
}

void PutText(Parcel& parcel, const std::string& values, size_t number)
{
    std::istringstream stream(values);
    for (std::string word; stream >> std::ws && !stream.eof();) {
        if (stream.peek() == '\'') {
            stream >> std::quoted(word, '\'');
            const size_t mark = word.find('#');
            parcel.WriteString(mark == std::string::npos ? word : word.replace(mark, 1, std::to_string(number)));
        } else if (stream >> word; word.front() == '@') {
            parcel.WriteParcelable(CaseOf(word.substr(1)).record.Get());
        } else if (const size_t star = word.find('*'); star != std::string::npos) {
            std::string element = word.substr(star + 1);
            std::replace(element.begin(), element.end(), ',', ' ');
            for (size_t i = 0; i < std::stoul(word); ++i) {
                PutText(parcel, element, i);
            }
        } else if (word.back() == 'L') {
            parcel.WriteInt64(std::stoll(word));
        } else {
            parcel.WriteInt32(std::stoi(word));
        }
    }
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
