// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/parcel.h"

// The reading half of the records that travel inside something else: a list of a request or a reply, or another record.
// Each fills a new record in place, in the order in which its Marshalling writes. False at the first field that cannot
// be read; throws std::bad_alloc when memory runs out. PermissionUsageRecord names its own as a friend.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

class GTokenPolicy;
class GTokenResult;
bool ReadFields(Parcel& parcel, GTokenPolicy& policy);
bool ReadFields(Parcel& parcel, GTokenResult& row);

namespace Permission {
class AppPermissionGroupInfo;
bool ReadFields(Parcel& parcel, AppPermissionGroupInfo& info);
}  // namespace Permission

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
