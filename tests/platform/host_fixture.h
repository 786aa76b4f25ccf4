// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "platform/raw_client.h"
#include "support/log_capture.h"
#include "support/scripted_stub.h"
#include "varn/host/ability_manager.h"
#include "varn/host/ability_server.h"

// A server in this process, and how it is asked.
namespace VARN::Host {

using AppSecurityPrivacy::SecurityPrivacyServer::Testing::Count;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

constexpr int32_t ID = 65993;

// A request that is answered with what it says, and its answer.
inline const std::string askBody = MakeBody("text");
inline const std::string askFrame = MakeFrame(1, askBody);
inline const std::string replyFrame = MakeFrame(1, askBody, 2);

using Answer = std::pair<int32_t, std::string>;

inline Answer Ask(const sptr<IRemoteObject>& object, uint32_t code, const std::string& text, int32_t waitTime = 60)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, waitTime);
    const int32_t status = data.WriteString(text) ? object->SendRequest(code, data, reply, option) : 4711;
    return {status, reply.ReadString()};
}

inline sptr<IRemoteObject> Load(int32_t timeoutSeconds = 0)
{
    return AbilityManager::Get()->LoadSystemAbility(ID, timeoutSeconds);
}

class HostTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        OpenGate();
        server_.reset();
        EXPECT_TRUE(std::filesystem::is_empty(folder_.Path())) << "a server left a file behind";
    }

    void Serve(const AbilityServerOptions& options = {}) { Serve(service_, options); }
    void Serve(const sptr<IPCObjectStub>& service, const AbilityServerOptions& options = {})
    {
        ASSERT_TRUE(server_.emplace(ID, service, options).Start()) << Log();
    }

    // Whether so many requests have come to the gate.
    bool AwaitAtGate(size_t count)
    {
        return Eventually([&] { return atGate_ == count; });
    }
    void OpenGate() { isOpen_ = true; }

    static bool IsAnswered(const RawClient& client)
    {
        return client.Send(askFrame) && client.Receive(replyFrame.size()) == replyFrame;
    }

    std::string Path() const { return folder_.SocketPath(); }
    std::string Log() const { return log_.Everything(); }

    const SocketFolder folder_;
    AppSecurityPrivacy::SecurityPrivacyServer::Testing::LogCapture log_{LOG_LEVEL_WARN};
    // Says what it was told: at once for code 1, behind the gate for one below 10. Any other code is the length of the
    // answer; 9 when it does not fit.
    const sptr<IPCObjectStub> service_{new ScriptedStub([this](uint32_t code, auto& data, auto& reply, auto&) {
        atGate_ += code > 1 && code < 10 ? 1 : 0;
        EXPECT_TRUE(code == 1 || code >= 10 || Eventually([this] { return isOpen_.load(); }));
        return reply.WriteString(code < 10 ? data.ReadString() : std::string(code, 'x')) ? 0 : 9;
    })};
    std::optional<AbilityServer> server_;

private:
    std::atomic<size_t> atGate_{0};
    std::atomic<bool> isOpen_{false};
};

}  // namespace VARN::Host
