// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "support/exchange.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

constexpr uint32_t ADD = MessageCode::GTOKEN_POLICY_ADD_POLICY;
constexpr uint32_t GET = MessageCode::GTOKEN_POLICY_GET_POLICY;
constexpr uint32_t REMOVE = MessageCode::GTOKEN_POLICY_REMOVE_POLICY;

constexpr const char* HANDLE_ADD = "HandleGTokenPolicyAddPolicy";
constexpr const char* HANDLE_GET = "HandleGTokenPolicyGetPolicy";
constexpr const char* HANDLE_REMOVE = "HandleGTokenPolicyRemovePolicy";

class GToken : public ExchangeTest {
protected:
    // Expects that a hand-made request is refused with these lines, unanswered and unseen by the service.
    template <class... T>
    void ExpectRefused(const std::string& lines, uint32_t code, const T&... values)
    {
        const LogCapture log(INFO);
        const size_t calls = service->Calls().size();
        EXPECT_EQ(401, Send(code, values...));
        EXPECT_EQ(0U, reply->GetDataSize());
        EXPECT_EQ(lines, log.Lines());
        EXPECT_EQ(calls, service->Calls().size());
    }

    const std::string getCalled = Line(ERROR, HANDLE_GET, "HandleGTokenPolicyGetPolicy called");
};
INSTANTIATE_TEST_SUITE_P(Roads, GToken, ::testing::Values(Road::IN_PROCESS, Road::SOCKET), RoadName);

TEST_P(GToken, RequestsOfFourBytesOrLessAreRefusedBeforeTheCountIsRead)
{
    ExpectRefused(Line(ERROR, HANDLE_ADD, "actual length error, value=0"), ADD);
    ExpectRefused(Line(ERROR, HANDLE_ADD, "actual length error, value=4"), ADD, 0);
    ExpectRefused(Line(ERROR, HANDLE_REMOVE, "actual length error, value=0"), REMOVE);
    ExpectRefused(Line(ERROR, HANDLE_REMOVE, "actual length error, value=4"), REMOVE, 1);
    ExpectRefused(getCalled + Line(ERROR, HANDLE_GET, "actual length error, value=0"), GET);
    ExpectRefused(getCalled + Line(ERROR, HANDLE_GET, "actual length error, value=4"), GET, 0);

    EXPECT_EQ(-1, client.GTokenPolicyAddPolicy({}));
    EXPECT_EQ(-1, client.GTokenPolicyRemovePolicy({}));
    EXPECT_TRUE(service->Calls().empty());
    EXPECT_EQ(0, client.GTokenPolicyGetPolicy("", {}).ret);
    EXPECT_TRUE(LastCall().bundleNames.empty());
}

TEST_P(GToken, CountsOutsideTheirLimitsAreRefused)
{
    for (const int32_t count : {0, -1, INT32_MIN}) {
        const std::string number = std::to_string(count);
        ExpectRefused(
            Line(INFO, HANDLE_ADD, "gTokenInfosSize, value=" + number) + Line(ERROR, HANDLE_ADD, "gTokenInfos is null"),
            ADD, count, 0);
        ExpectRefused(Line(ERROR, HANDLE_REMOVE, "bundleNames is null"), REMOVE, count, 0);
        const LogCapture log(INFO);
        EXPECT_EQ(0, Send(GET, "policy", count, "unread")) << "get has no lower limit";
        EXPECT_EQ("policy", LastCall().policyName);
        EXPECT_TRUE(LastCall().bundleNames.empty());
        EXPECT_NE(std::string::npos, log.Lines().find("GetPolicy bundleNamesSize = " + number + "\n"));
    }
    for (const int32_t count : {10001, INT32_MAX}) {
        ExpectRefused(Line(INFO, HANDLE_ADD, "gTokenInfosSize, value=" + std::to_string(count)) +
                          Line(ERROR, HANDLE_ADD, "gTokenInfos size is too big"),
                      ADD, count, 0);
        ExpectRefused(Line(ERROR, HANDLE_REMOVE, "bundleNames size is too big"), REMOVE, count, 0);
        ExpectRefused(getCalled + Line(ERROR, HANDLE_GET, "bundleNames size is too big"), GET, "policy", count);
    }
}

TEST_P(GToken, TenThousandEntriesGoThroughAndOneMoreDoesNot)
{
    const LogCapture quiet(WARN);
    std::vector<GTokenInfo> infos(10000, MakeGTokenInfo());
    infos.back().bundleName = "last";
    const std::vector<std::string> names = MakeNames(10001, "bundle");
    const std::vector<std::string> allowed(names.begin(), names.end() - 1);
    FakeAnswer answer;
    answer.gTokenResultWithRet.ret = INT64_MIN;
    answer.gTokenResultWithRet.gTokenResults.resize(10001, MakeGTokenResult());
    service->SetAnswer(GET, answer);

    EXPECT_EQ(0, client.GTokenPolicyAddPolicy(infos));
    ASSERT_EQ(10000U, LastCall().gTokenInfos.size());
    EXPECT_EQ("last", LastCall().gTokenInfos.back().bundleName);
    EXPECT_EQ(3U, LastCall().gTokenInfos.back().policies.size());
    const GTokenResultWithRet results = client.GTokenPolicyGetPolicy("policy", allowed);
    EXPECT_EQ(answer.gTokenResultWithRet.ToString(), results.ToString()) << "rows have no limit";
    EXPECT_EQ(MakeGTokenResult().fingerprint, results.gTokenResults.back().fingerprint);
    EXPECT_EQ(allowed, LastCall().bundleNames);
    EXPECT_EQ(0, client.GTokenPolicyRemovePolicy(allowed));
    EXPECT_EQ(allowed, LastCall().bundleNames);

    infos.emplace_back();
    EXPECT_EQ(-1, client.GTokenPolicyAddPolicy(infos));
    EXPECT_EQ(-1, client.GTokenPolicyGetPolicy("policy", names).ret);
    EXPECT_EQ(-1, client.GTokenPolicyRemovePolicy(names));
    EXPECT_EQ(3U, service->Calls().size());
}

TEST_P(GToken, EntriesThatCannotBeReadAreLeftOut)
{
    GTokenInfo first;
    first.bundleName = "first";
    GTokenInfo last = MakeGTokenInfo();
    EXPECT_EQ(0, Send(ADD, 3, first, 0, last));
    EXPECT_EQ(Texts(std::vector{first, last}), Texts(LastCall().gTokenInfos));

    const LogCapture log(ERROR);
    EXPECT_EQ(0, Send(ADD, 3, first, 1, "broken", "", int64_t{1}, 10001, last));
    EXPECT_EQ(Texts(std::vector{first, last}), Texts(LastCall().gTokenInfos));
    EXPECT_EQ(Line(ERROR, "Unmarshalling", "gTokenPolicies size is too big", "GToken"), log.Lines());

    EXPECT_EQ(0, Send(ADD, 10000, 0));
    EXPECT_TRUE(LastCall().gTokenInfos.empty()) << "the service is called even so";
    EXPECT_EQ(std::vector<int32_t>{0}, TakeWords(*reply));

    EXPECT_EQ(0, Send(REMOVE, 3, "first"));
    EXPECT_EQ((std::vector<std::string>{"first", "", ""}), LastCall().bundleNames) << "missing names read as empty";
    EXPECT_EQ(0, Send(GET, "policy", 2));
    EXPECT_EQ(std::vector<std::string>(2), LastCall().bundleNames);
}

TEST(GTokenReplies, AreReadAsFarAsTheyGo)
{
    const GTokenResult row = MakeGTokenResult();
    struct Case {
        sptr<ScriptedObject> object;
        int64_t ret;
        size_t rows;
    };
    const std::vector<Case> cases = {
        {Replying(int64_t{5}, 3, row, row, row), 5, 3},
        {Replying(int64_t{5}, 3, row, 0, row), 5, 2},
        {Replying(int64_t{5}, 3, row, 1, "cut"), 5, 1},
        {Replying(int64_t{5}, 1, row, row), 5, 1},
        {Replying(int64_t{5}, -1, row), 5, 0},
        {Replying(int64_t{5}, INT32_MIN, row), 5, 0},
        {Replying(int64_t{5}, INT32_MAX), 5, 0},
        {Replying(int64_t{5}, INT32_MAX, row, row), 5, 2},
        {Replying(INT64_MIN), INT64_MIN, 0},
        {Replying(7), 0, 0},
        {Replying(), 0, 0},
    };
    for (const Case& test : cases) {
        const LogCapture log(ERROR);
        const GTokenResultWithRet results = ProxyOver(test.object)->GTokenPolicyGetPolicy("policy", {});
        EXPECT_EQ(test.ret, results.ret);
        EXPECT_EQ(std::vector(test.rows, row.ToString()), Texts(results.gTokenResults));
        EXPECT_EQ("", log.Lines());
    }
    EXPECT_EQ(0, ProxyOver(Replying())->GTokenPolicyAddPolicy({}));
    EXPECT_EQ(-9, ProxyOver(Replying(-9))->GTokenPolicyRemovePolicy({}));
}

// Proxies, unlike the client, let requests run at the same time; each must get its own answer.
TEST_P(GToken, RequestsAtTheSameTimeDoNotMix)
{
    const LogCapture quiet(WARN);
    service->SetResponder(GET, [](const FakeCall& call) {
        FakeAnswer answer;
        for (const std::string& bundleName : call.bundleNames) {
            answer.gTokenResultWithRet.gTokenResults.emplace_back();
            answer.gTokenResultWithRet.gTokenResults.back().bundleName = call.policyName + bundleName;
        }
        return answer;
    });
    const sptr<SecurityPrivacyServiceIntf> proxy = ProxyOver(Load());
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&proxy, name = "thread" + std::to_string(i)] {
            for (size_t request = 0; request < 50; ++request) {
                const std::vector<std::string> bundles = MakeNames(request, "bundle");
                const GTokenResultWithRet results = proxy->GTokenPolicyGetPolicy(name, bundles);
                ASSERT_EQ(request, results.gTokenResults.size());
                for (size_t row = 0; row < request; ++row) {
                    ASSERT_EQ(name + bundles[row], results.gTokenResults[row].bundleName);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
