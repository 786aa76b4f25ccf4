// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/permission_usage_record.h"

#include <new>

#include "records/field_io.h"
#include "util/format_utils.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

using Util::FormatUtils::Text;

bool PermissionUsageRecord::Marshalling(Parcel& parcel) const
{
    bool isWritten = parcel.WriteString(bundleName_);
    isWritten = isWritten && parcel.WriteInt32(uid_);
    isWritten = isWritten && parcel.WriteString(operationGroup_);
    isWritten = isWritten && parcel.WriteInt32(times_);
    isWritten = isWritten && parcel.WriteInt32(operationMode_);
    isWritten = isWritten && parcel.WriteInt32(appState_);
    isWritten = isWritten && parcel.WriteInt32(screenState_);
    isWritten = isWritten && parcel.WriteInt64(beginTimestamp_);
    return isWritten && parcel.WriteInt64(endTimestamp_);
}

bool ReadFields(Parcel& parcel, PermissionUsageRecord& record)
{
    bool isRead = parcel.ReadString(record.bundleName_);
    isRead = isRead && parcel.ReadInt32(record.uid_);
    isRead = isRead && parcel.ReadString(record.operationGroup_);
    isRead = isRead && parcel.ReadInt32(record.times_);
    isRead = isRead && parcel.ReadInt32(record.operationMode_);
    isRead = isRead && parcel.ReadInt32(record.appState_);
    isRead = isRead && parcel.ReadInt32(record.screenState_);
    isRead = isRead && parcel.ReadInt64(record.beginTimestamp_);
    return isRead && parcel.ReadInt64(record.endTimestamp_);
}

PermissionUsageRecord* PermissionUsageRecord::Unmarshalling(Parcel& parcel)
{
    return FillRecord(
        new (std::nothrow) PermissionUsageRecord(), [&](const auto& record) { return ReadFields(parcel, *record); },
        [] {});
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
