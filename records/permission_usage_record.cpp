// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/permission_usage_record.h"

#include "records/field_io.h"
#include "util/format_utils.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

using Util::FormatUtils::Text;

bool PermissionUsageRecord::Marshalling(Parcel& parcel) const
{
    return MoveAll(Writer{parcel}, bundleName_, uid_, operationGroup_, times_, operationMode_, appState_, screenState_,
                   beginTimestamp_, endTimestamp_);
}

bool ReadFields(Parcel& parcel, PermissionUsageRecord& record)
{
    return MoveAll(Reader{parcel}, record.bundleName_, record.uid_, record.operationGroup_, record.times_,
                   record.operationMode_, record.appState_, record.screenState_, record.beginTimestamp_,
                   record.endTimestamp_);
}

PermissionUsageRecord* PermissionUsageRecord::Unmarshalling(Parcel& parcel)
{
    return MakeRecord<PermissionUsageRecord>([&](const auto& record) { return ReadFields(parcel, *record); }, [] {});
}

std::string PermissionUsageRecord::ToString() const
{
    // The times come before the operation group here, though not in the parcel; log readers expect this order.
    return "PermissionUsageRecord{bundleName=" + Text(bundleName_) + ", uid=" + Text(uid_) + ", times=" + Text(times_) +
           ", operationGroup=" + Text(operationGroup_) + ", operationMode=" + Text(operationMode_) +
           ", appState=" + Text(appState_) + ", screenState=" + Text(screenState_) +
           ", beginTimestamp=" + Text(beginTimestamp_) + ", endTimestamp=" + Text(endTimestamp_) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record
