// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "platform/raw_client.h"
#include "support/calls.h"

// Requests as bytes, to be sent as they are or spoilt.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

inline std::string BytesLeftIn(Parcel& parcel)
{
    std::string bytes;
    for (const int32_t word : TakeWords(parcel)) {
        bytes += Host::BytesOf(word);
    }
    return bytes;
}

template <class... T>
std::string MakeRequest(const T&... values)
{
    MessageParcel parcel;
    PutAll(parcel, SecurityPrivacyServiceIntf::GetDescriptor(), values...);
    return BytesLeftIn(parcel);
}

inline std::string MakeByAppFrame(const std::string& bundleName, int32_t userId)
{
    return Host::MakeFrame(1, MakeRequest(bundleName, userId, int32_t{0}));
}
inline const std::string honestFrame = MakeByAppFrame("com.example.bank", 100);

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
