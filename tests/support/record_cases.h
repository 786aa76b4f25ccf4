// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/parcels.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// One kind of record, with the sample that its MakeX() gives.
struct RecordCase {
    std::string name;
    std::string module;         // of its log lines; a record without one logs nothing
    std::vector<Value> values;  // the sample's wire form
    sptr<Parcelable> record;
    std::function<sptr<Parcelable>(Parcel&)> unmarshal;
    std::function<std::string(const Parcelable&)> toString;
};

// The eight records, by the name of their class.
const std::vector<RecordCase>& RecordCases();
const RecordCase& CaseOf(const std::string& name);

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
