// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/raw_client.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/call_operation.h"
#include "support/log_capture.h"
#include "support/parcels.h"
#include "support/scripted_stub.h"
#include "varn/host/ability_manager.h"
#include "varn/host/ability_server.h"
#include "varn/remote_broker.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

inline std::string BytesLeftIn(Parcel& parcel)
{
    std::string bytes;
    for (const int32_t word : TakeWords(parcel)) {
        bytes += Host::BytesOf(word);
    }
    return bytes;
}

// A request as bytes, to be sent as it is or spoilt.
inline std::string MakeRequest(const std::string& values)
{
    MessageParcel parcel;
    parcel.WriteInterfaceToken(SecurityPrivacyServiceIntf::GetDescriptor());
    PutText(parcel, values);
    return BytesLeftIn(parcel);
}

// The proxy that the library has registered, over any object.
inline sptr<SecurityPrivacyServiceIntf> ProxyOver(const sptr<IRemoteObject>& object)
{
    const sptr<IRemoteBroker> broker =
        BrokerRegistration::Get().NewInstance(SecurityPrivacyServiceIntf::GetDescriptor(), object);
    // A cast that names the type brings the proxy along from a static library.
    return sptr<SecurityPrivacyServiceIntf>(dynamic_cast<SecurityPrivacyServiceIntf*>(broker.Get()));
}

// A service that the client finds while this exists: in this process, or behind a socket.
class ServedFake {
public:
    explicit ServedFake(bool isBehindSocket)
    {
        if (isBehindSocket) {
            EXPECT_TRUE(server_.emplace(FAKE_SERVICE_ID, service).Start());
        } else {
            EXPECT_TRUE(Host::AbilityManager::Get()->AddSystemAbility(FAKE_SERVICE_ID, service));
        }
    }
    ~ServedFake() { Host::AbilityManager::Get()->RemoveSystemAbility(FAKE_SERVICE_ID); }

    const Host::SocketFolder folder;
    const sptr<FakeService> service{new FakeService()};

private:
    std::optional<Host::AbilityServer> server_;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
