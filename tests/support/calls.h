// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/call_operation.h"
#include "support/log_capture.h"
#include "support/parcels.h"
#include "varn/host/ability_server.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// A remote object that plays a script and remembers how it was spoken to.
class ScriptedObject : public IRemoteObject {
public:
    using Script = std::function<int32_t(uint32_t code, MessageParcel& data, MessageParcel& reply)>;
    explicit ScriptedObject(Script script) : script_(std::move(script)) {}

    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override
    {
        sent.push_back({code, option.GetFlags(), option.GetWaitTime()});
        return script_(code, data, reply);
    }

    struct Sent {
        uint32_t code;
        int32_t flags;
        int32_t waitTime;
    };
    std::vector<Sent> sent;

private:
    const Script script_;
};

// The proxy that the library has registered, over any object.
sptr<SecurityPrivacyServiceIntf> ProxyOver(const sptr<IRemoteObject>& object);

// Where services of this process put their sockets and its client finds them: only we may enter it, until the program
// ends.
const std::string& AbilityFolder();

// Runs each test twice: with the service in this process, and with the service behind a socket.
enum class Road { IN_PROCESS, SOCKET };

class CallTest : public ::testing::TestWithParam<Road> {
protected:
    void SetUp() override;
    void TearDown() override;

    // The object that the client finds: the service itself or the stand-in for it.
    static sptr<IRemoteObject> Load();

    // Sends a hand-made request, whose status it returns and whose answer it leaves in `reply`.
    template <class... T>
    int32_t Send(uint32_t code, const T&... values)
    {
        MessageParcel data;
        EXPECT_TRUE(PutAll(data, SecurityPrivacyServiceIntf::GetDescriptor(), values...));
        reply.emplace();
        MessageOption option;
        return Load()->SendRequest(code, data, *reply, option);
    }

    SecurityPrivacyClient& client = SecurityPrivacyClient::GetInstance();
    const sptr<FakeService> service{new FakeService()};
    std::optional<MessageParcel> reply;

private:
    std::unique_ptr<Host::AbilityServer> server_;
};

std::string RoadName(const ::testing::TestParamInfo<Road>& road);

// All texts of all elements.
template <class T>
std::vector<std::string> Texts(const std::vector<T>& records)
{
    std::vector<std::string> texts;
    std::transform(records.begin(), records.end(), std::back_inserter(texts), std::mem_fn(&T::ToString));
    return texts;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
