// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "security_privacy/export.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// One named policy and its value. A plain value.
class SECURITY_PRIVACY_API GTokenPolicy : public Parcelable {
public:
    // Writes all fields. False at the first write that fails; the parcel is then to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new record for the caller to own; null when the parcel does not hold a whole one or memory runs out.
    static GTokenPolicy* Unmarshalling(Parcel& parcel);

    // All fields on one line, for logs.
    std::string ToString() const;

    // The fields, in the order in which they travel.
    std::string policyName;
    int64_t policyValue = 0;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
