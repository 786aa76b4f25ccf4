// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "security_privacy/export.h"
#include "security_privacy/gtoken_policy.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// A bundle and the policies that are to be set for it: the argument of the add request. A plain value.
class SECURITY_PRIVACY_API GTokenInfo : public Parcelable {
public:
    // Writes all fields, any number of policies. False at the first write that fails; the parcel is then to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new record for the caller to own; null when the parcel does not hold a whole one, announces more than
    // 10000 policies, or memory runs out. A negative count reads as no policies.
    static GTokenInfo* Unmarshalling(Parcel& parcel);

    // All fields on one line, for logs; "xxx" stands for the fingerprint.
    std::string ToString() const;

    // The fields, in the order in which they travel.
    std::string bundleName;
    std::string fingerprint;  // sensitive: never logged or printed
    int64_t versionCode = 0;
    std::vector<GTokenPolicy> policies;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
