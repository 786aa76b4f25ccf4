// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

class GTokenPolicy;
class GTokenResult;

// The reading half of records that also travel inside another, one after the other without presence words: each fills
// the record in place, in the order in which its Marshalling writes. False at the first field that cannot be read.
bool ReadFields(Parcel& parcel, GTokenPolicy& policy);
bool ReadFields(Parcel& parcel, GTokenResult& row);

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
