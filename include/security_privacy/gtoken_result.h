// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "security_privacy/export.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// One row of the answer to the get request: a bundle and the value of the policy that was asked for. A plain value.
class SECURITY_PRIVACY_API GTokenResult : public Parcelable {
public:
    // Writes all fields. False at the first write that fails; the parcel is then to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new record for the caller to own; null when the parcel does not hold a whole one or memory runs out.
    static GTokenResult* Unmarshalling(Parcel& parcel);

    // All fields on one line, for logs; "xxx" stands for the fingerprint.
    std::string ToString() const;

    // The fields, in the order in which they travel.
    std::string bundleName;
    std::string fingerprint;  // sensitive: never logged or printed
    int64_t versionCode = 0;
    int64_t policyValue = 0;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
