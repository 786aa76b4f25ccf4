// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_result.h"

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

bool GTokenResult::Marshalling(Parcel& parcel) const
{
    return WRITE(String, bundleName) && WRITE_MASKED(String, fingerprint) && WRITE(Int64, versionCode) &&
           WRITE(Int64, policyValue);
}

bool ReadFields(Parcel& parcel, GTokenResult& row)
{
    return READ(String, &row, bundleName) && READ_MASKED(String, &row, fingerprint) && READ(Int64, &row, versionCode) &&
           READ(Int64, &row, policyValue);
}

GTokenResult* GTokenResult::Unmarshalling(Parcel& parcel)
{
    std::unique_ptr<GTokenResult> row(new (std::nothrow) GTokenResult());
    if (row == nullptr) {
        LOG_ERROR("new GTokenResult failed.");
        return nullptr;
    }
    return ReadFields(parcel, *row) ? row.release() : nullptr;
}

std::string GTokenResult::ToString() const
{
    return "GTokenResult{bundleName=" + Text(bundleName) + ", fingerprint=xxx" + ", versionCode=" + Text(versionCode) +
           ", policyValue=" + Text(policyValue) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
