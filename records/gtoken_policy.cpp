// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_policy.h"

#include "records/field_io.h"
#include "records/read_fields.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("GToken");

bool GTokenPolicy::Marshalling(Parcel& parcel) const
{
    bool isWritten = WRITE(String, policyName);
    return isWritten && WRITE(Int64, policyValue);
}

bool ReadFields(Parcel& parcel, GTokenPolicy& policy)
{
    bool isRead = READ(String, &policy, policyName);
    return isRead && READ(Int64, &policy, policyValue);
}

GTokenPolicy* GTokenPolicy::Unmarshalling(Parcel& parcel)
{
    return MAKE_RECORD(GTokenPolicy, [&](const auto& policy) { return ReadFields(parcel, *policy); });
}

std::string GTokenPolicy::ToString() const
{
    return "GTokenPolicy{policyName=" + Text(policyName) + ", policyValue=" + Text(policyValue) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
