// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/exchange.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

class Client : public ::testing::Test {
protected:
    SecurityPrivacyClient& client = SecurityPrivacyClient::GetInstance();
    const FakeServiceScope fake;
};

TEST_F(Client, CallsBackOnceAndKeepsNothingAfterwards)
{
    const int32_t owners = fake.Service().StrongCount();
    int calls = 0;
    client.WithSystemAbilityProxy([&](const sptr<SecurityPrivacyServiceIntf>& proxy) {
        ++calls;
        ASSERT_NE(nullptr, proxy);
        EXPECT_EQ(static_cast<IRemoteObject*>(&fake.Service()), proxy->AsObject().Get());
        EXPECT_GT(fake.Service().StrongCount(), owners);
    });
    EXPECT_EQ(1, calls);
    EXPECT_EQ(owners, fake.Service().StrongCount());
    fake.Manager().SetPresence(FakePresence::ABSENT);
    client.WithSystemAbilityProxy([&](const sptr<SecurityPrivacyServiceIntf>& proxy) {
        ++calls;
        EXPECT_EQ(nullptr, proxy);
    });
    EXPECT_EQ(2, calls);
}

TEST_F(Client, LetsRequestsInFromInsideARequest)
{
    FakeAnswer answer;
    answer.result = 9;
    fake.Service().SetAnswer(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, answer);
    fake.Service().SetResponder(MessageCode::GTOKEN_POLICY_ADD_POLICY, [this](const FakeCall&) {
        FakeAnswer inner;
        client.WithSystemAbilityProxy(
            [&](const sptr<SecurityPrivacyServiceIntf>&) { inner.result = client.GTokenPolicyRemovePolicy({"app"}); });
        return inner;
    });
    EXPECT_EQ(9, client.GTokenPolicyAddPolicy({MakeGTokenInfo()}));
}

TEST_F(Client, HandlesRequestsOfSeveralThreadsOneAfterTheOther)
{
    std::atomic<int> inside{0};
    const auto beAlone = [&inside](const auto&) {
        EXPECT_EQ(1, ++inside);
        std::this_thread::yield();
        EXPECT_EQ(0, --inside);
        return FakeAnswer();
    };
    fake.Service().SetResponder(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, beAlone);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int request = 0; request < 100; ++request) {
                client.GTokenPolicyRemovePolicy({"app"});
                client.WithSystemAbilityProxy(beAlone);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(400U, fake.Service().Calls().size());
}

// Were the lock still held, the other thread's request and this one would wait for each other for ever.
TEST_F(Client, WritesUsageRecordsAfterOthersAreLetIn)
{
    std::atomic<int> others{0};
    Host::SetLogSink([&](const Host::LogLine& line) {
        if (line.text.find(": PermissionUsageRecord{") != std::string::npos) {
            std::thread([&] {
                client.WithSystemAbilityProxy([&](const sptr<SecurityPrivacyServiceIntf>&) { ++others; });
            }).join();
        }
    });
    Host::SetLogLevel(DEBUG);
    CallOperation(client, MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY);
    CallOperation(client, MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE);
    Host::SetLogLevel(INFO);
    Host::SetLogSink({});
    EXPECT_EQ(2, others);
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
