// SPDX-License-Identifier: Apache-2.0
// The worked example of docs/wire-protocol.md, read out of the document: whoever follows it understands this library.
// And what that says of tokens and long lists.
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
    const ServedFake served(true);
    const Host::RawClient peer(served.folder.SocketPath());
    // Twice: the second one shows that the first ended where it should.
    ASSERT_TRUE(peer.Send(request + request));
    EXPECT_EQ(reply + reply, peer.Receive(2 * reply.size()));
    const std::vector<FakeCall> calls = served.service->Calls();
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, calls[1].code);
    EXPECT_EQ(std::vector<std::string>{"com.example.maps"}, calls[1].bundleNames);
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
        data.WriteInterfaceToken(wrong);
        EXPECT_EQ(1, service->OnRemoteRequest(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, data, answer, option));
        EXPECT_EQ(0U, answer.GetDataSize());
        EXPECT_EQ(
            "6 [ASP] [SPS][service]OnRemoteRequest: ReadInterfaceToken not equal to GetDescriptor, someone is "
            "attacking you.\n",
            log.Lines());
    }
    EXPECT_THAT(service->AccessChecks(), ::testing::IsEmpty());
}

TEST(WireProtocol, AtMostFiftyStatesAreWritten)
{
    Permission::AppPermissionGroupInfo info;
    for (int state = 0; state < 51; ++state) {
        info.shownStates.push_back(std::to_string(state));
        info.disabledStates.insert(std::to_string(state));
    }
    Parcel parcel;
    ASSERT_TRUE(info.Marshalling(parcel));
    const sptr<Permission::AppPermissionGroupInfo> read(Permission::AppPermissionGroupInfo::Unmarshalling(parcel));
    ASSERT_NE(nullptr, read);
    info.shownStates.pop_back();
    EXPECT_EQ(info.shownStates, read->shownStates);
    EXPECT_THAT(read->disabledStates,
                ::testing::AllOf(::testing::SizeIs(50), ::testing::IsSubsetOf(info.disabledStates)));
}

TEST(WireProtocol, InnerReadingOfAQueryAppendsAndListsOfOneHundredAreRefusedAfterTheirCount)
{
    using Query = Record::PermissionUsageRecordQuery;
    for (int list = 0; list < 6; ++list) {
        const std::string before = std::to_string(list) + "*0 ";
        const std::string half = before + "50 50*" + (list == 0 || list == 2 ? "''" : "7") + ' ' +
                                 std::to_string(5 - list) + "*0 0L 0L 0 0 ";
        Parcel parcel;
        PutText(parcel, half + half);
        const sptr<Query> query(new Query());
        EXPECT_EQ(query.Get(), Query::UnmarshallingInner(parcel, query.Get()));
        EXPECT_EQ(query.Get(), Query::UnmarshallingInner(parcel, query.Get()));
        Parcel refused;
        EXPECT_FALSE(query->Marshalling(refused));
        Parcel expected;
        PutText(expected, before + "100");
        EXPECT_EQ(TakeWords(expected), TakeWords(refused)) << list;
    }
}

TEST(WireProtocol, TenThousandIsNotALimitForWriting)
{
    GTokenInfo info;
    info.policies.resize(10001);
    GTokenResultWithRet results;
    results.gTokenResults.resize(10001);
    Parcel parcel;
    EXPECT_TRUE(info.Marshalling(parcel) && results.Marshalling(parcel));
    Parcel expected;
    PutText(expected, "'' '' 0L 10001 10001*'',0L 0L 10001 10001*'','',0L,0L");
    EXPECT_EQ(TakeWords(expected), TakeWords(parcel));
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
