// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/permission_usage_record_query.h"

#include <algorithm>
#include <memory>
#include <new>

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
    // The size is tested after it was written, so that a refused query leaves it in the parcel; meant.
    return parcel.WriteInt32(size) && size <= MAX_QUERY_LIST_SIZE &&
           std::all_of(list.begin(), list.end(), [&](const Element& element) { return Write(parcel, element); });
}

template <class Element>
bool ReadList(Parcel& parcel, std::vector<Element>& list)
{
    int32_t size = 0;
    if (!parcel.ReadInt32(size) || size > MAX_QUERY_LIST_SIZE) {
        return false;
    }
    Util::ReserveAnnounced(list, size, parcel.GetReadableBytes());
    // A negative size reads as an empty list; meant.
    for (int32_t index = 0; index < size; ++index) {
        if (!Read(parcel, list.emplace_back())) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool PermissionUsageRecordQuery::Marshalling(Parcel& parcel) const
{
    return WriteList(parcel, bundleNames_) && WriteList(parcel, userIds_) && WriteList(parcel, operationGroups_) &&
           WriteList(parcel, operationModes_) && WriteList(parcel, appStates_) && WriteList(parcel, screenStates_) &&
           parcel.WriteInt64(beginTimestamp_) && parcel.WriteInt64(endTimestamp_) && parcel.WriteInt32(limit_) &&
           parcel.WriteInt32(order_);
}

PermissionUsageRecordQuery* PermissionUsageRecordQuery::Unmarshalling(Parcel& parcel)
{
    return UnmarshallingInner(parcel, new (std::nothrow) PermissionUsageRecordQuery());
}

PermissionUsageRecordQuery* PermissionUsageRecordQuery::UnmarshallingInner(Parcel& parcel,
                                                                           PermissionUsageRecordQuery* query)
{
    std::unique_ptr<PermissionUsageRecordQuery> owned(query);
    const bool isWhole = owned != nullptr && ReadList(parcel, query->bundleNames_) &&
                         ReadList(parcel, query->userIds_) && ReadList(parcel, query->operationGroups_) &&
                         ReadList(parcel, query->operationModes_) && ReadList(parcel, query->appStates_) &&
                         ReadList(parcel, query->screenStates_) && parcel.ReadInt64(query->beginTimestamp_) &&
                         parcel.ReadInt64(query->endTimestamp_) && parcel.ReadInt32(query->limit_) &&
                         parcel.ReadInt32(query->order_);
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
