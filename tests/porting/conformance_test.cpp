// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "support/call_operation.h"
#include "varn/log.h"

// The library at work on whatever platform it was built on, with client and service in one process.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

SecurityPrivacyClient& Client()
{
    return SecurityPrivacyClient::GetInstance();
}

TEST(ConformanceTest, EveryRequestReachesTheService)
{
    const FakeServiceScope fake;
    for (const uint32_t code : CODES) {
        EXPECT_EQ(0, CallOperation(Client(), code).result) << code;
        EXPECT_EQ(code, fake.Service().Calls().back().code);
    }
    EXPECT_EQ(std::vector<uint32_t>(std::begin(CODES), std::end(CODES)), fake.Service().AccessChecks());
    EXPECT_EQ(std::size(CODES), fake.Manager().Lookups().size()) << "every request looks the service up";
    for (const FakeServiceManager::Lookup& lookup : fake.Manager().Lookups()) {
        EXPECT_EQ(65993, lookup.systemAbilityId);
        EXPECT_EQ(4, lookup.timeoutSeconds);
    }
}

TEST(ConformanceTest, LetsRequestsInFromInsideARequest)
{
    const FakeServiceScope fake;
    FakeAnswer answer;
    answer.result = 9;
    fake.Service().SetAnswer(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, answer);
    fake.Service().SetResponder(MessageCode::GTOKEN_POLICY_ADD_POLICY, [](const FakeCall&) {
        FakeAnswer inner;
        Client().WithSystemAbilityProxy([&](auto&) { inner.result = Client().GTokenPolicyRemovePolicy({"app"}); });
        return inner;
    });
    EXPECT_EQ(9, Client().GTokenPolicyAddPolicy({MakeGTokenInfo()}));
}

TEST(ConformanceTest, HandlesRequestsOfSeveralThreadsOneAfterTheOther)
{
    const FakeServiceScope fake;
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
                Client().GTokenPolicyRemovePolicy({"app"});
                Client().WithSystemAbilityProxy(beAlone);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(400U, fake.Service().Calls().size());
}

TEST(ConformanceTest, LogCallTakesOutMarkersAndReturnsTheLengthOfTheLine)
{
    const auto text = [](const char* characters) { return std::string(characters); };
    EXPECT_EQ(7, VoLogPrint(0, 7, 0, "TEST", "[%{public}s] %s %{private}d", text("a").c_str(), text("b").c_str(), 3));
    EXPECT_GT(0, VoLogPrint(0, 7, 0, "TEST", "%"));
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
