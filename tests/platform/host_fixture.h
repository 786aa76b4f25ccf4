// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "platform/raw_client.h"
#include "support/log_capture.h"
#include "varn/host/ability_server.h"

// A server in this process, of a service that is a function.
namespace VARN::Host {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

constexpr int32_t ID = 65993;

class Service : public IPCObjectStub {
public:
    using Operation = std::function<int32_t(uint32_t code, MessageParcel& data, MessageParcel& reply)>;
    explicit Service(Operation operation, bool serial = false)
        : IPCObjectStub(u"test", serial), operation_(std::move(operation))
    {
    }
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        return operation_(code, data, reply);
    }

private:
    const Operation operation_;
};

inline int32_t Echo(uint32_t code, MessageParcel& data, MessageParcel& reply)
{
    reply.WriteString(data.ReadString());
    return code == 1 ? 0 : static_cast<int32_t>(code);
}

// A request that Echo answers, and its answer.
inline const std::string askBody = MakeBody("text");
inline const std::string askFrame = MakeFrame(1, askBody);
inline const std::string replyFrame = MakeFrame(1, askBody, 2);

class HostTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        server_.reset();
        EXPECT_TRUE(std::filesystem::is_empty(folder_.Path())) << "a server left a file behind";
    }

    void Serve(const Service::Operation& operation = Echo, const AbilityServerOptions& options = {})
    {
        ASSERT_TRUE(server_.emplace(ID, sptr<IPCObjectStub>(new Service(operation)), options).Start()) << Log();
    }

    static bool IsAnswered(const RawClient& client)
    {
        return client.Send(askFrame) && client.Receive(replyFrame.size()) == replyFrame;
    }

    std::string Path() const { return folder_.SocketPath(); }
    std::string Log() const { return log_.Everything(); }

    const SocketFolder folder_;
    AppSecurityPrivacy::SecurityPrivacyServer::Testing::LogCapture log_{LOG_LEVEL_WARN};
    std::optional<AbilityServer> server_;
};

}  // namespace VARN::Host
