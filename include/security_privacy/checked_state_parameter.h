// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "security_privacy/export.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission {

// A requested change of one app's permission group: the state to choose and the flag bits to set. A plain value.
class SECURITY_PRIVACY_API CheckedStateParameter : public Parcelable {
public:
    // Writes all fields. False at the first write that fails; the parcel is then to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new record for the caller to own; null when the parcel does not hold a whole one or memory runs out.
    static CheckedStateParameter* Unmarshalling(Parcel& parcel);

    // All fields on one line, for logs.
    std::string ToString() const;

    std::string checkedState;  // the state to choose
    int64_t flagsMask = 0;     // which flag bits to change
    int64_t flagsValue = 0;    // the new values of the bits in the mask
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission
