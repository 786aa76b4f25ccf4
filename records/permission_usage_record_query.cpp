// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/permission_usage_record_query.h"

#include <algorithm>
#include <new>

#include "records/field_io.h"
#include "records/read_fields.h"
#include "security_privacy/contract.h"
#include "util/format_utils.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

namespace {

using Util::FormatUtils::Text;

template <class Element, class Argument>
bool WriteList(Parcel& parcel, const std::vector<Element>& list, bool (Parcel::*write)(Argument))
{
    const auto size = static_cast<int32_t>(list.size());
    // Also of a list that is then refused: its reader refuses it as well.
    return parcel.WriteInt32(size) && size <= MAX_QUERY_LIST_SIZE &&
           std::all_of(list.begin(), list.end(), [&](const Element& element) { return (parcel.*write)(element); });
}

template <class Element>
bool ReadList(Parcel& parcel, std::vector<Element>& list, bool (Parcel::*read)(Element&))
{
    int32_t size = 0;
    return parcel.ReadInt32(size) && size <= MAX_QUERY_LIST_SIZE &&
           ReadAnnounced(parcel, size, list, [&](Element& element) { return (parcel.*read)(element); });
}

}  // namespace

bool PermissionUsageRecordQuery::Marshalling(Parcel& parcel) const
{
    bool isWritten = WriteList(parcel, bundleNames_, &Parcel::WriteString);
    isWritten = isWritten && WriteList(parcel, userIds_, &Parcel::WriteInt32);
    isWritten = isWritten && WriteList(parcel, operationGroups_, &Parcel::WriteString);
    isWritten = isWritten && WriteList(parcel, operationModes_, &Parcel::WriteInt32);
    isWritten = isWritten && WriteList(parcel, appStates_, &Parcel::WriteInt32);
    isWritten = isWritten && WriteList(parcel, screenStates_, &Parcel::WriteInt32);
    isWritten = isWritten && parcel.WriteInt64(beginTimestamp_);
    isWritten = isWritten && parcel.WriteInt64(endTimestamp_);
    isWritten = isWritten && parcel.WriteInt32(limit_);
    return isWritten && parcel.WriteInt32(order_);
}

PermissionUsageRecordQuery* PermissionUsageRecordQuery::Unmarshalling(Parcel& parcel)
{
    return UnmarshallingInner(parcel, new (std::nothrow) PermissionUsageRecordQuery());
}

PermissionUsageRecordQuery* PermissionUsageRecordQuery::UnmarshallingInner(Parcel& parcel,
                                                                           PermissionUsageRecordQuery* query)
{
    const auto readFields = [&](const auto& /* owner */) {
        bool isRead = ReadList(parcel, query->bundleNames_, &Parcel::ReadString);
        isRead = isRead && ReadList(parcel, query->userIds_, &Parcel::ReadInt32);
        isRead = isRead && ReadList(parcel, query->operationGroups_, &Parcel::ReadString);
        isRead = isRead && ReadList(parcel, query->operationModes_, &Parcel::ReadInt32);
        isRead = isRead && ReadList(parcel, query->appStates_, &Parcel::ReadInt32);
        isRead = isRead && ReadList(parcel, query->screenStates_, &Parcel::ReadInt32);
        isRead = isRead && parcel.ReadInt64(query->beginTimestamp_);
        isRead = isRead && parcel.ReadInt64(query->endTimestamp_);
        isRead = isRead && parcel.ReadInt32(query->limit_);
        return isRead && parcel.ReadInt32(query->order_);
    };
    return FillRecord(query, readFields, [] {});
}

std::string PermissionUsageRecordQuery::ToString() const
{
    namespace Format = Util::FormatUtils;
    return "PermissionUsageRecordQuery{bundleNames=" + Format::ToString(bundleNames_) +
           ", userIds=" + Format::ToString(userIds_) + ", operationGroups=" + Format::ToString(operationGroups_) +
           ", operationModes=" + Format::ToString(operationModes_) + ", appStates=" + Format::ToString(appStates_) +
           ", screenStates=" + Format::ToString(screenStates_) + ", beginTimestamp=" + Text(beginTimestamp_) +
           ", endTimestamp=" + Text(endTimestamp_) + ", limit=" + Text(limit_) + ", order=" + Text(order_) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record
