// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_result.h"

#include "records/field_io.h"
#include "records/read_fields.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("GToken");

bool GTokenResult::Marshalling(Parcel& parcel) const
{
    bool isWritten = WRITE(String, bundleName);
    isWritten = isWritten && WRITE_MASKED(String, fingerprint);
    isWritten = isWritten && WRITE(Int64, versionCode);
    return isWritten && WRITE(Int64, policyValue);
}

bool ReadFields(Parcel& parcel, GTokenResult& row)
{
    bool isRead = READ(String, &row, bundleName);
    isRead = isRead && READ_MASKED(String, &row, fingerprint);
    isRead = isRead && READ(Int64, &row, versionCode);
    return isRead && READ(Int64, &row, policyValue);
}

GTokenResult* GTokenResult::Unmarshalling(Parcel& parcel)
{
    return MAKE_RECORD(GTokenResult, [&](const auto& row) { return ReadFields(parcel, *row); });
}

std::string GTokenResult::ToString() const
{
    return "GTokenResult{bundleName=" + Text(bundleName) + ", fingerprint=xxx" + ", versionCode=" + Text(versionCode) +
           ", policyValue=" + Text(policyValue) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
