// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/permission_usage_record.h"

#include <memory>
#include <new>

#include "util/format_utils.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

using Util::FormatUtils::Text;

bool PermissionUsageRecord::Marshalling(Parcel& parcel) const
{
    return parcel.WriteString(bundleName_) && parcel.WriteInt32(uid_) && parcel.WriteString(operationGroup_) &&
           parcel.WriteInt32(times_) && parcel.WriteInt32(operationMode_) && parcel.WriteInt32(appState_) &&
           parcel.WriteInt32(screenState_) && parcel.WriteInt64(beginTimestamp_) && parcel.WriteInt64(endTimestamp_);
}

PermissionUsageRecord* PermissionUsageRecord::Unmarshalling(Parcel& parcel)
{
    std::unique_ptr<PermissionUsageRecord> record(new (std::nothrow) PermissionUsageRecord());
    if (record == nullptr) {
        return nullptr;
    }

    const bool isWhole = parcel.ReadString(record->bundleName_) && parcel.ReadInt32(record->uid_) &&
                         parcel.ReadString(record->operationGroup_) && parcel.ReadInt32(record->times_) &&
                         parcel.ReadInt32(record->operationMode_) && parcel.ReadInt32(record->appState_) &&
                         parcel.ReadInt32(record->screenState_) && parcel.ReadInt64(record->beginTimestamp_) &&
                         parcel.ReadInt64(record->endTimestamp_);
    return isWhole ? record.release() : nullptr;
}

std::string PermissionUsageRecord::ToString() const
{
    // The times come before the operation group here, though not in the parcel; meant.
    return "PermissionUsageRecord{bundleName=" + Text(bundleName_) + ", uid=" + Text(uid_) + ", times=" + Text(times_) +
           ", operationGroup=" + Text(operationGroup_) + ", operationMode=" + Text(operationMode_) +
           ", appState=" + Text(appState_) + ", screenState=" + Text(screenState_) +
           ", beginTimestamp=" + Text(beginTimestamp_) + ", endTimestamp=" + Text(endTimestamp_) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record
