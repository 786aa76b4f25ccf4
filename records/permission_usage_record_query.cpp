// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/permission_usage_record_query.h"

#include <memory>
#include <new>

#include "records/field_io.h"
#include "security_privacy/contract.h"
#include "util/announced_list.h"
#include "util/format_utils.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

namespace {

using Util::FormatUtils::Text;

bool Write(Parcel& parcel, const std::string& element)
{
    return parcel.WriteString(element);
}
bool Write(Parcel& parcel, int element)
{
    return parcel.WriteInt32(element);
}
bool Read(Parcel& parcel, std::string& element)
{
    return parcel.ReadString(element);
}
bool Read(Parcel& parcel, int& element)
{
    return parcel.ReadInt32(element);
}

template <class Element>
bool WriteList(Parcel& parcel, const std::vector<Element>& list)
{
    const auto size = static_cast<int32_t>(list.size());
    // The size is tested after it was written: the reader of a refused query finds it and refuses the query as well.
    return parcel.WriteInt32(size) && size <= MAX_QUERY_LIST_SIZE &&
           ForFirst(size, list, [&](const Element& element) { return Write(parcel, element); });
}

template <class Element>
bool ReadList(Parcel& parcel, std::vector<Element>& list)
{
    int32_t size = 0;
    if (!parcel.ReadInt32(size) || size > MAX_QUERY_LIST_SIZE) {
        return false;
    }
    Util::ReserveAnnounced(list, size, parcel.GetReadableBytes());
    // A negative size reads as an empty list, as it always has.
    return Repeat(size, [&] { return Read(parcel, list.emplace_back()); });
}

}  // namespace

bool PermissionUsageRecordQuery::Marshalling(Parcel& parcel) const
{
    bool isWritten = WriteList(parcel, bundleNames_);
    isWritten = isWritten && WriteList(parcel, userIds_);
    isWritten = isWritten && WriteList(parcel, operationGroups_);
    isWritten = isWritten && WriteList(parcel, operationModes_);
    isWritten = isWritten && WriteList(parcel, appStates_);
    isWritten = isWritten && WriteList(parcel, screenStates_);
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
    std::unique_ptr<PermissionUsageRecordQuery> owned(query);
    const bool isWhole = IfMemoryLasts([&] {
        bool isRead = owned != nullptr;
        isRead = isRead && ReadList(parcel, query->bundleNames_);
        isRead = isRead && ReadList(parcel, query->userIds_);
        isRead = isRead && ReadList(parcel, query->operationGroups_);
        isRead = isRead && ReadList(parcel, query->operationModes_);
        isRead = isRead && ReadList(parcel, query->appStates_);
        isRead = isRead && ReadList(parcel, query->screenStates_);
        isRead = isRead && parcel.ReadInt64(query->beginTimestamp_);
        isRead = isRead && parcel.ReadInt64(query->endTimestamp_);
        isRead = isRead && parcel.ReadInt32(query->limit_);
        return isRead && parcel.ReadInt32(query->order_);
    });
    return isWhole ? owned.release() : nullptr;
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
