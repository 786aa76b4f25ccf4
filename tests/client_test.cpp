// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/calls.h"

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
