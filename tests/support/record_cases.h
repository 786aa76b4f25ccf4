// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// What must never be seen in a log line or a text form: every fingerprint of a sample contains it.
constexpr const char* SECRET = "5E:C4:E7";

// One kind of record, with a sample of telling values: all different, negative and extreme numbers, texts with a quote,
// a percent sign, several bytes to a letter, or nothing.
struct RecordCase {
    std::string name;
    std::string module;  // of its log lines; a record without one logs nothing
    std::string values;  // the sample's wire form, as PutText has it
    sptr<Parcelable> (*unmarshal)(Parcel&);
    std::string (*toString)(const Parcelable&);
    sptr<Parcelable> record;
};

// The eight records, by the name of their class.
const std::vector<RecordCase>& RecordCases();
const RecordCase& CaseOf(const std::string& name);

// A copy of the sample of this kind.
template <class Record>
Record Sample()
{
    const auto isOfKind = [](const RecordCase& kind) { return dynamic_cast<const Record*>(kind.record.Get()); };
    return *isOfKind(*std::find_if(RecordCases().begin(), RecordCases().end(), isOfKind));
}

// Writes values that are separated by blanks: 7 an int32, 7L an int64, 'text' a string ('#' is its number in a
// repetition, else `number`), @Record a sample behind its presence word, 3*value three of them, 3*value,value three
// pairs.
void PutText(Parcel& parcel, const std::string& values, size_t number = 0);

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
