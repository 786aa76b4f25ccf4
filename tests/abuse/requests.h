// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "abuse/processes.h"
#include "support/calls.h"

// Requests as bytes, to be sent as they are or spoilt.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

constexpr size_t HEADER_SIZE = 20;

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

inline bool IsAnswered(const Peer& peer)
{
    return peer.Send(honestFrame) && !peer.ReadReply().empty();
}

inline std::string Repeat(const std::string& text, size_t times)
{
    std::string all;
    while (times-- > 0) {
        all += text;
    }
    return all;
}

// What an honest client sends.
inline std::string MakeHonestRequest(uint32_t code)
{
    std::string body;
    const sptr<IRemoteObject> listener(new ScriptedObject([&body](uint32_t, MessageParcel& data, MessageParcel&) {
        body = BytesLeftIn(data);
        return 0;
    }));
    CallOperation(*ProxyOver(listener), code);
    return body;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
