// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/permission_usage_record_query.h"

#include <memory>
#include <new>

#include "records/field_io.h"
#include "util/format_utils.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

using Util::FormatUtils::Text;

bool PermissionUsageRecordQuery::Marshalling(Parcel& parcel) const
{
    return MoveAll(Writer{parcel}, bundleNames_, userIds_, operationGroups_, operationModes_, appStates_, screenStates_,
                   beginTimestamp_, endTimestamp_, limit_, order_);
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
        return query != nullptr &&
               MoveAll(Reader{parcel}, query->bundleNames_, query->userIds_, query->operationGroups_,
                       query->operationModes_, query->appStates_, query->screenStates_, query->beginTimestamp_,
                       query->endTimestamp_, query->limit_, query->order_);
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
