// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "security_privacy/export.h"
#include "security_privacy/gtoken_result.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// The answer to the get request: a return code and the service's rows, each of one bundle. A plain value.
class SECURITY_PRIVACY_API GTokenResultWithRet : public Parcelable {
public:
    // Writes all fields, any number of rows. False at the first write that fails; the parcel is then to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new record for the caller to own; null when the parcel does not hold a whole one, announces more than
    // 10000 rows, or memory runs out. A negative count reads as no rows.
    static GTokenResultWithRet* Unmarshalling(Parcel& parcel);

    // All fields on one line, for logs; "xxx" stands for each fingerprint.
    std::string ToString() const;

    std::vector<GTokenResult> gTokenResults;  // the rows, in the service's order
    int64_t ret = 0;                          // the request's result; what it means is the service's business
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
