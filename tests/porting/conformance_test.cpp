// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "varn/log.h"

// The library at work on whatever platform it was built on, with client and service in one process.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

SecurityPrivacyClient& Client()
{
    return SecurityPrivacyClient::GetInstance();
}

// Each request through client, proxy, parcels and stub. The value is the result.
std::map<uint32_t, std::function<int64_t()>> Requests()
{
    return {
        {1,
         [] {
             std::vector<Permission::AppPermissionGroupInfo> infos;
             return Client().GetAppPermissionGroupInfosByApp("app", 1, {"group"}, infos);
         }},
        {2,
         [] {
             std::vector<Permission::AppPermissionGroupInfo> infos;
             return Client().GetAppPermissionGroupInfosByPermission("group", 1, {"app"}, infos);
         }},
        {3,
         [] {
             bool returns = false;
             return Client().SetAppPermissionGroupCheckedState("app", 1, "group", {}, returns);
         }},
        {4,
         [] {
             std::vector<Record::PermissionUsageRecord> records;
             return Client().GetPermissionUsageSummary({}, records);
         }},
        {5,
         [] {
             std::vector<Record::PermissionUsageRecord> records;
             return Client().GetPermissionUsageTimeline({}, records);
         }},
        {11, [] { return Client().GTokenPolicyAddPolicy({GTokenInfo()}); }},
        {12, [] { return Client().GTokenPolicyGetPolicy("policy", {"app"}).ret; }},
        {13, [] { return Client().GTokenPolicyRemovePolicy({"app"}); }},
    };
}

TEST(ConformanceTest, EveryRequestReachesTheService)
{
    const FakeServiceScope fake;
    std::vector<uint32_t> codes;
    for (const auto& [code, request] : Requests()) {
        EXPECT_EQ(request(), 0) << code;
        EXPECT_EQ(fake.Service().Calls().back().code, code);
        codes.push_back(code);
    }
    EXPECT_EQ(fake.Service().AccessChecks(), codes);
    EXPECT_EQ(fake.Manager().Lookups().size(), codes.size()) << "every request looks the service up";
}

TEST(ConformanceTest, AnswerComesBackWhole)
{
    const FakeServiceScope fake;
    FakeAnswer answer;
    answer.appPermissionGroupInfos.resize(10000);
    for (size_t index = 0; index < answer.appPermissionGroupInfos.size(); ++index) {
        answer.appPermissionGroupInfos[index].bundleName = std::string(index % 100, 'b');
        answer.appPermissionGroupInfos[index].flags = -static_cast<int64_t>(index);
    }
    fake.Service().SetAnswer(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP, answer);
    std::vector<Permission::AppPermissionGroupInfo> infos;
    EXPECT_EQ(Client().GetAppPermissionGroupInfosByApp("app", 1, {}, infos), 0);
    ASSERT_EQ(infos.size(), answer.appPermissionGroupInfos.size());
    for (size_t index = 0; index < infos.size(); ++index) {
        ASSERT_EQ(infos[index].ToString(), answer.appPermissionGroupInfos[index].ToString());
    }
}

TEST(ConformanceTest, FailuresKeepTheirResults)
{
    const FakeServiceScope fake;
    for (const auto& [code, request] : Requests()) {
        SCOPED_TRACE(code);
        fake.Manager().SetPresence(FakePresence::ABSENT);
        EXPECT_EQ(request(), 0);
        fake.Manager().SetPresence(FakePresence::DYING);
        EXPECT_EQ(request(), -1);
        fake.Manager().SetPresence(FakePresence::HERE);
        fake.Service().SetRefused({code});
        EXPECT_EQ(request(), -1);
        fake.Service().SetRefused({});
        fake.Service().SetResponder(code, [](const FakeCall&) -> FakeAnswer { throw std::runtime_error("broken"); });
        EXPECT_EQ(request(), -1) << "an exception must not leave the platform";
    }
}

TEST(ConformanceTest, RequestsMayComeFromManyThreadsAndFromInsideACallback)
{
    const FakeServiceScope fake;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                Client().WithSystemAbilityProxy([](const sptr<SecurityPrivacyServiceIntf>& proxy) {
                    EXPECT_EQ(proxy->GTokenPolicyRemovePolicy({"app"}), 0);
                    EXPECT_EQ(Client().GTokenPolicyRemovePolicy({"app"}), 0);
                });
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(fake.Service().Calls().size(), 4U * 50U * 2U);
}

TEST(ConformanceTest, LogCallTakesMarkersAndTemporaries)
{
    VoLogPrint(0, 3, 0, "TEST", "[%{public}s] %s %{public}d", std::string("a").c_str(), std::string("b").c_str(), 3);
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
