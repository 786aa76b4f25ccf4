// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/call_operation.h"
#include "support/log_capture.h"
#include "support/parcels.h"
#include "varn/host/ability_server.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// A remote object that plays a script and remembers how it was last spoken to.
class ScriptedObject : public IRemoteObject {
public:
    using Script = std::function<int32_t(uint32_t code, MessageParcel& data, MessageParcel& reply)>;
    explicit ScriptedObject(Script script) : script_(std::move(script)) {}

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        lastOption = option;
        return script_(code, data, reply);
    }

    MessageOption lastOption{-1, 1};

private:
    const Script script_;
};

// The proxy that the library has registered, over any object.
sptr<SecurityPrivacyServiceIntf> ProxyOver(const sptr<IRemoteObject>& object);

// Where services of this process put their sockets and its client finds them: only we may enter it, until the program
// ends.
const std::string& AbilityFolder();

// A service that the client finds while this exists: in this process, or behind a socket.
class ServedFake {
public:
    explicit ServedFake(bool isBehindSocket);
    ~ServedFake();

    const sptr<FakeService> service{new FakeService()};

private:
    std::optional<Host::AbilityServer> server_;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
