// SPDX-License-Identifier: Apache-2.0
// The worked example of docs/wire-protocol.md, read out of the document: whoever follows it understands this library.
#include <gmock/gmock.h>

#include <fstream>
#include <future>
#include <sstream>
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
    std::string bytes;
    std::string line;
    while (std::getline(document, line) && line != "```hex " + name) {
    }
    while (std::getline(document, line) && line != "```") {
        std::istringstream digits(line.substr(0, line.find('#')));
        for (int byte = 0; digits >> std::hex >> byte;) {
            bytes.push_back(static_cast<char>(byte));
        }
    }
    return bytes;
}

const std::string request = ReadExample("request");
const std::string reply = ReadExample("reply");

TEST(WireProtocol, ServiceAnswersTheExampleAsDocumented)
{
    const Host::SocketFolder folder;
    const sptr<FakeService> service(new FakeService());
    Host::AbilityServer server(FAKE_SERVICE_ID, service);
    ASSERT_TRUE(server.Start());
    const Host::RawClient peer(folder.SocketPath());
    // Twice: the second one shows that the first ended where it should.
    ASSERT_TRUE(peer.Send(request + request));
    EXPECT_EQ(reply + reply, peer.Receive(2 * reply.size()));
    ASSERT_EQ(2U, service->Calls().size());
    EXPECT_EQ(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, service->Calls()[1].code);
    EXPECT_EQ(std::vector<std::string>{"com.example.maps"}, service->Calls()[1].bundleNames);
}

TEST(WireProtocol, ClientSendsTheExampleAndTakesItsReply)
{
    const Host::SocketFolder folder;
    const Host::RawServer service(folder.SocketPath());
    auto result = std::async(std::launch::async, [] {
        return SecurityPrivacyClient::GetInstance().GTokenPolicyRemovePolicy({"com.example.maps"});
    });
    const Host::RawSocket connection(::accept(service.GetFd(), nullptr, nullptr));
    EXPECT_EQ(request, connection.Receive(request.size()));
    // Another result than an unreachable service would give.
    std::string refusal = reply;
    refusal.back() = 1;
    EXPECT_TRUE(connection.Send(refusal));
    EXPECT_EQ(0x01000000, result.get());
}

TEST(WireProtocol, WrongTokensAreRefusedBeforeAnythingIsAsked)
{
    const std::u16string token = SecurityPrivacyServiceIntf::GetDescriptor();
    std::vector<std::u16string> tokens = {u"", token + u"x", token.substr(1), token.substr(0, 71), token + u'\0'};
    for (size_t i = 0; i < token.size(); ++i) {
        tokens.push_back(token);
        tokens.back()[i] ^= 0x100;
    }
    const sptr<FakeService> service(new FakeService());
    for (const std::u16string& wrong : tokens) {
        const LogCapture log(LOG_LEVEL_ERROR);
        MessageParcel data;
        MessageParcel answer;
        MessageOption option;
        Put(data, wrong);
        EXPECT_EQ(1, service->OnRemoteRequest(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, data, answer, option));
        EXPECT_EQ(0U, answer.GetDataSize());
        EXPECT_EQ(
            "6 [ASP] [SPS][service]OnRemoteRequest: ReadInterfaceToken not equal to GetDescriptor, someone is "
            "attacking you.\n",
            log.Lines());
    }
    EXPECT_THAT(service->AccessChecks(), ::testing::IsEmpty());
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
