// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/checked_state_parameter.h"

#include "records/field_io.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("permission");

bool CheckedStateParameter::Marshalling(Parcel& parcel) const
{
    bool isWritten = WRITE(String, checkedState);
    isWritten = isWritten && WRITE(Int64, flagsMask);
    return isWritten && WRITE(Int64, flagsValue);
}

CheckedStateParameter* CheckedStateParameter::Unmarshalling(Parcel& parcel)
{
    return MAKE_RECORD(CheckedStateParameter, [&](const auto& parameter) {
        bool isRead = READ(String, parameter, checkedState);
        isRead = isRead && READ(Int64, parameter, flagsMask);
        return isRead && READ(Int64, parameter, flagsValue);
    });
}

std::string CheckedStateParameter::ToString() const
{
    return "CheckedStateParameter{checkedState=" + Text(checkedState) + ", flagsMask=" + Text(flagsMask) +
           ", flagsValue=" + Text(flagsValue) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission
