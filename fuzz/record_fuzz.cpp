// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>

#include "fuzz/input.h"
#include "support/record_cases.h"

using namespace VARN;
using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing;

// The first byte of the input chooses the record; the rest is the parcel. What was read is within all limits, so it can
// be written, and reads back to the same text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    std::string_view input = fuzz::MakeInput(bytes, size);
    const RecordCase& record = RecordCases()[fuzz::Take<uint8_t>(input) % RecordCases().size()];
    const auto text = [&record](const Parcelable& value) {
        std::string letters = record.toString(value);
        if (record.name == "AppPermissionGroupInfo") {
            // It has a set, whose order may be another one.
            std::sort(letters.begin(), letters.end());
        }
        return letters;
    };
    Parcel parcel;
    fuzz::TakeParcel(input, parcel);
    const sptr<Parcelable> value = record.unmarshal(parcel);
    if (value == nullptr) {
        return 0;
    }
    Parcel copy;
    fuzz::Require(value->Marshalling(copy));
    const sptr<Parcelable> again = record.unmarshal(copy);
    fuzz::Require(again != nullptr && copy.GetReadableBytes() == 0 && text(*again) == text(*value));
    return 0;
}
