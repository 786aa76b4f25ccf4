// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/checked_state_parameter.h"

#include <memory>
#include <new>

#include "records/field_io.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission {

namespace {

using Util::FormatUtils::Text;
using Util::KelLog::Tag;

const Tag LOG_TAG = Tag::Create("permission", Tag::DEFAULT_COMPONENT_TAG, Tag::DEFAULT_SUB_SYSTEM_TAG);

}  // namespace

bool CheckedStateParameter::Marshalling(Parcel& parcel) const
{
    return WRITE(String, checkedState) && WRITE(Int64, flagsMask) && WRITE(Int64, flagsValue);
}

CheckedStateParameter* CheckedStateParameter::Unmarshalling(Parcel& parcel)
{
    std::unique_ptr<CheckedStateParameter> parameter(new (std::nothrow) CheckedStateParameter());
    if (parameter == nullptr) {
        LOG_ERROR("new CheckedStateParameter failed.");
        return nullptr;
    }

    const bool isWhole = READ(String, parameter, checkedState) && READ(Int64, parameter, flagsMask) &&
                         READ(Int64, parameter, flagsValue);
    return isWhole ? parameter.release() : nullptr;
}

std::string CheckedStateParameter::ToString() const
{
    return "CheckedStateParameter{checkedState=" + Text(checkedState) + ", flagsMask=" + Text(flagsMask) +
           ", flagsValue=" + Text(flagsValue) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission
