// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_policy.h"

#include <memory>
#include <new>

#include "records/field_io.h"
#include "records/gtoken_fields.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

namespace {

using Util::FormatUtils::Text;
using Util::KelLog::Tag;

const Tag LOG_TAG = Tag::Create("GToken", Tag::DEFAULT_COMPONENT_TAG, Tag::DEFAULT_SUB_SYSTEM_TAG);

}  // namespace

bool GTokenPolicy::Marshalling(Parcel& parcel) const
{
    return WRITE(String, policyName) && WRITE(Int64, policyValue);
}

bool ReadFields(Parcel& parcel, GTokenPolicy& policy)
{
    return READ(String, &policy, policyName) && READ(Int64, &policy, policyValue);
}

GTokenPolicy* GTokenPolicy::Unmarshalling(Parcel& parcel)
{
    std::unique_ptr<GTokenPolicy> policy(new (std::nothrow) GTokenPolicy());
    if (policy == nullptr) {
        LOG_ERROR("new GTokenPolicy failed.");
        return nullptr;
    }
    return ReadFields(parcel, *policy) ? policy.release() : nullptr;
}

std::string GTokenPolicy::ToString() const
{
    return "GTokenPolicy{policyName=" + Text(policyName) + ", policyValue=" + Text(policyValue) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
