// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/export.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission {

// The state of one permission group for one app: what a service answers to the by-app and by-permission requests.
// A plain value; copies are independent. What the states, the reason and the flag bits mean is the service's business.
class SECURITY_PRIVACY_API AppPermissionGroupInfo : public Parcelable {
public:
    // Writes all fields, but at most 50 shown and 50 disabled states: the rest is dropped silently. False at the first
    // write that fails; the parcel is then to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new record for the caller to own; null when the parcel does not hold a whole one, announces more than
    // 50 states, or memory runs out. A negative count of states reads as none.
    static AppPermissionGroupInfo* Unmarshalling(Parcel& parcel);

    // All fields on one line, for logs.
    std::string ToString() const;

    // The fields, in the order in which they travel.
    std::string bundleName;
    int32_t uid = 0;
    std::string permissionGroup;
    std::string checkedState;                        // the current state
    std::vector<std::string> shownStates;            // offered for display, in this order
    std::unordered_set<std::string> disabledStates;  // not to be chosen at present
    std::string disabledReason;                      // why states are disabled
    int64_t flags = 0;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission
