// SPDX-License-Identifier: Apache-2.0
#include <memory>
#include <string>

#include "fuzz/input.h"
#include "security_privacy/security_privacy_service_stub.h"

namespace {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;
using VARN::Parcel;
using VARN::sptr;

// The text of a record, but for what has no order: a set may be read back in another one.
template <class Record>
std::string TextOf(const Record& record)
{
    return record.ToString();
}
template <>
std::string TextOf(const Permission::AppPermissionGroupInfo& info)
{
    Permission::AppPermissionGroupInfo ordered = info;
    ordered.disabledStates.clear();
    return ordered.ToString() + std::to_string(info.disabledStates.size());
}

// What was read and can be written reads back the same. A record that came off the wire is within all limits, so it
// can.
template <class Record>
void Check(Parcel& parcel)
{
    const sptr<Record> record(Record::Unmarshalling(parcel));
    if (record == nullptr) {
        return;
    }
    Parcel copy;
    fuzz::Require(record->Marshalling(copy));
    const sptr<Record> again(Record::Unmarshalling(copy));
    fuzz::Require(again != nullptr && TextOf(*again) == TextOf(*record) && copy.GetReadableBytes() == 0);
}

}  // namespace

// The first byte of the input chooses the record; the rest is the parcel.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    constexpr void (*CHECKS[])(Parcel&) = {
        Check<Permission::AppPermissionGroupInfo>,
        Check<Permission::CheckedStateParameter>,
        Check<Record::PermissionUsageRecord>,
        Check<Record::PermissionUsageRecordQuery>,
        Check<GTokenPolicy>,
        Check<GTokenInfo>,
        Check<GTokenResult>,
        Check<GTokenResultWithRet>,
    };
    fuzz::Input input(bytes, size);
    const size_t choice = input.TakeByte() % (sizeof(CHECKS) / sizeof(CHECKS[0]));
    Parcel parcel;
    input.TakeParcel(parcel);
    CHECKS[choice](parcel);
    return 0;
}
