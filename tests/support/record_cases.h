// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/parcels.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// One value of a record's wire form, and the messages that its writing and its reading leave in the log.
struct FieldStep {
    Value value;
    std::vector<std::string> written;
    std::vector<std::string> read;
};

// Everything that is fixed about one kind of record, for the record that its MakeX() gives.
struct RecordCase {
    std::string name;
    std::string module;  // of its log lines; a record without one logs nothing
    sptr<Parcelable> record;
    sptr<Parcelable> defaultRecord;
    std::function<sptr<Parcelable>(Parcel&)> unmarshal;
    std::function<std::string(const Parcelable&)> toString;
    std::string text;
    std::string defaultText;
    std::vector<FieldStep> steps;  // in wire order

    // The log lines of the first `count` steps.
    std::string WriteLines(size_t count = SIZE_MAX) const { return Lines(count, "Marshalling", &FieldStep::written); }
    std::string ReadLines(size_t count = SIZE_MAX) const { return Lines(count, "Unmarshalling", &FieldStep::read); }

private:
    std::string Lines(size_t count, const char* function, std::vector<std::string> FieldStep::*messages) const;
};

// The eight records, by the name of their class.
const std::vector<RecordCase>& RecordCases();
const RecordCase& CaseOf(const std::string& name);

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
