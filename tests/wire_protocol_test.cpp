// SPDX-License-Identifier: Apache-2.0
// The worked example of docs/wire-protocol.md, read out of the document: whoever follows it understands this library.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <vector>

#include "platform/raw_client.h"
#include "support/calls.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

// The bytes of the block "```hex <name>"; behind a '#' stand comments.
std::string ReadExample(const std::string& name)
{
    std::ifstream document(WIRE_PROTOCOL_DOCUMENT);
    std::string line;
    while (std::getline(document, line) && line != "```hex " + name) {
    }
    std::string digits;
    while (std::getline(document, line) && line != "```") {
        std::copy_if(line.begin(), std::find(line.begin(), line.end(), '#'), std::back_inserter(digits),
                     [](char character) { return character != ' '; });
    }
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        bytes.push_back(static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

class WireProtocol : public ::testing::Test {
protected:
    void TearDown() override { std::filesystem::remove(socketPath); }

    const std::string socketPath = AbilityFolder() + "/65993.sock";
    const std::string request = ReadExample("request");
    const std::string reply = ReadExample("reply");
};

TEST_F(WireProtocol, ServiceAnswersTheExampleAsDocumented)
{
    const sptr<FakeService> service(new FakeService());
    Host::AbilityServer server(FAKE_SERVICE_ID, service);
    ASSERT_TRUE(server.Start());
    const Host::RawClient peer(socketPath);
    // Twice: the second one shows that the first ended where it should.
    ASSERT_TRUE(peer.Send(request + request));
    EXPECT_EQ(reply + reply, peer.Receive(2 * reply.size()));
    ASSERT_EQ(2U, service->Calls().size());
    EXPECT_EQ(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, service->Calls()[1].code);
    EXPECT_EQ(std::vector<std::string>{"com.example.maps"}, service->Calls()[1].bundleNames);
}

TEST_F(WireProtocol, ClientSendsTheExampleAndTakesItsReply)
{
    const Host::RawServer service(socketPath);
    ASSERT_TRUE(service.IsListening());
    auto result = std::async(std::launch::async, [] {
        return SecurityPrivacyClient::GetInstance().GTokenPolicyRemovePolicy({"com.example.maps"});
    });
    const int connection = ::accept(service.GetFd(), nullptr, nullptr);
    std::string received(request.size(), '\0');
    EXPECT_EQ(static_cast<ssize_t>(request.size()), ::recv(connection, received.data(), received.size(), MSG_WAITALL));
    EXPECT_EQ(request, received);
    // Another result than an unreachable service would give.
    std::string refusal = reply;
    refusal.back() = 1;
    ::send(connection, refusal.data(), refusal.size(), MSG_NOSIGNAL);
    ::close(connection);
    EXPECT_EQ(0x01000000, result.get());
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
