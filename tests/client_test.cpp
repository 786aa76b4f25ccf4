// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "security_privacy/connect.h"
#include "support/calls.h"
#include "varn/host/ability_manager.h"
#include "varn/log.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Intf = SecurityPrivacyServiceIntf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::FieldsAre;
using ::testing::StartsWith;

// The place of a virtual function in its table, as the C++ ABI of Linux keeps it in a member pointer.
template <class Member>
size_t Place(Member member)
{
    size_t place = 0;
    std::memcpy(&place, &member, sizeof(place));
    return place / sizeof(void*);
}

TEST(Interface, OperationsKeepTheirPlacesInTheVirtualTable)
{
    const size_t places[] = {Place(&Intf::GetAppPermissionGroupInfosByApp),
                             Place(&Intf::GetAppPermissionGroupInfosByPermission),
                             Place(&Intf::SetAppPermissionGroupCheckedState),
                             Place(&Intf::GetPermissionUsageSummary),
                             Place(&Intf::GetPermissionUsageTimeline),
                             Place(&Intf::GTokenPolicyAddPolicy),
                             Place(&Intf::GTokenPolicyGetPolicy),
                             Place(&Intf::GTokenPolicyRemovePolicy)};
    EXPECT_THAT(places, ElementsAre(3, 4, 5, 6, 7, 8, 9, 10));
}

class Client : public ::testing::Test {
protected:
    SecurityPrivacyClient& client = SecurityPrivacyClient::GetInstance();
    const FakeServiceScope fake;
};

TEST_F(Client, CallsBackOnceAndKeepsNothingAfterwards)
{
    const int32_t owners = fake.Service().StrongCount();
    const int32_t managers = fake.Manager().StrongCount();
    int calls = 0;
    const auto take = [&](const sptr<Intf>& proxy) {
        ++calls;
        EXPECT_EQ(calls == 1 ? &fake.Service() : nullptr, proxy == nullptr ? nullptr : proxy->AsObject().Get());
        EXPECT_EQ(calls == 1, fake.Service().StrongCount() > owners);
        EXPECT_EQ(managers + 1, fake.Manager().StrongCount()) << "it may be replaced meanwhile";
    };
    client.WithSystemAbilityProxy(take);
    EXPECT_EQ(owners, fake.Service().StrongCount());
    fake.Manager().SetPresence(FakePresence::ABSENT);
    client.WithSystemAbilityProxy(take);
    EXPECT_EQ(2, calls);
    Connect(3);
    EXPECT_THAT(fake.Manager().Lookups(), ElementsAre(FieldsAre(65993, 4), FieldsAre(65993, 4), FieldsAre(65993, 3)));
}

// In a process of its own: what makes proxies is registered once, when the library is loaded.
TEST_F(Client, YieldsZeroWhereNoProxyCanBeMade)
{
    const auto callAll = [this] {
        BrokerRegistration::Get().Unregister(Intf::GetDescriptor());
        EXPECT_EQ(ConnectError::NO_PROXY, Connect(0).error);
        for (const uint32_t code : CODES) {
            const LogCapture log(LOG_LEVEL_ERROR);
            EXPECT_EQ(0, CallOperation(client, code).result);
            EXPECT_THAT(log.Lines(), StartsWith("6 [ASP] [SPS][service]WithSystemAbilityProxy: iface_cast SA=65993 is "
                                                "nullptr, there is nothing we can do.\n"));
        }
        std::exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(callAll(), ::testing::ExitedWithCode(0), "");
}

// Were the lock still held, the other thread's request and this one would wait for each other for ever.
TEST_F(Client, WritesUsageRecordsAfterOthersAreLetIn)
{
    const LogCapture restoring;
    std::atomic<int> others{0};
    Host::SetLogSink([&](const Host::LogLine& line) {
        if (line.text.find(": PermissionUsageRecord{") != std::string::npos) {
            std::thread([&] { client.WithSystemAbilityProxy([&](const auto&) { ++others; }); }).join();
        }
    });
    CallOperation(client, MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY);
    CallOperation(client, MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE);
    EXPECT_EQ(2, others);
}

TEST_F(Client, LetsOneThreadInAtATimeAndThatOneAgain)
{
    std::atomic<int> inside{0};
    fake.Service().SetResponder(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, [&inside](const FakeCall&) {
        EXPECT_EQ(1, ++inside);
        std::this_thread::yield();
        EXPECT_EQ(0, --inside);
        return FakeAnswer();
    });
    const auto ask = [&](const auto&) { client.GTokenPolicyRemovePolicy({"app"}); };
    std::vector<std::future<void>> threads;
    for (const bool isNested : {false, false, true, true}) {
        threads.push_back(std::async(std::launch::async, [&, isNested] {
            for (int request = 0; request < 100; ++request) {
                isNested ? client.WithSystemAbilityProxy(ask) : ask(nullptr);
            }
        }));
    }
    threads.clear();
    EXPECT_EQ(400U, fake.Service().Calls().size());
    EXPECT_THAT(fake.Manager().Lookups(), Each(FieldsAre(65993, 4)));
}

bool IsThere()
{
    bool isThere = false;
    SecurityPrivacyClient::GetInstance().WithSystemAbilityProxy([&](const auto& proxy) { isThere = proxy != nullptr; });
    return isThere;
}

int StatusOf(pid_t child)
{
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return status;
}

constexpr unsigned LIMIT_SECONDS = 30;  // for a child that hangs

TEST_F(Client, ChildMadeInsideACallbackHoldsTheLockUntilItLeaves)
{
    if (IS_THREAD_SANITIZED) {
        GTEST_SKIP() << "to the thread sanitizer the lock that the child has made anew is still the parent's";
    }
    pid_t child = -1;
    std::future<bool> other;
    client.WithSystemAbilityProxy([&](const auto&) {
        client.WithSystemAbilityProxy([&](const auto&) { child = ::fork(); });
        if (child == 0) {
            ::alarm(LIMIT_SECONDS);
            other = std::async(std::launch::async, IsThere);
            if (other.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready || !IsThere()) {
                ::_exit(1);
            }
        }
    });
    if (child == 0) {
        ::_exit(other.get() && IsThere() ? 0 : 1);
    }
    EXPECT_EQ(0, StatusOf(child));
}

// Each thread holds one lock most of the time. The fake manager is not asked, since it has a lock of its own.
TEST_F(Client, ChildOfAForkFindsEveryLockFree)
{
    const sptr<Host::AbilityManager> manager = Host::AbilityManager::Get();
    auto& managers = SystemAbilityManagerClient::GetInstance();
    managers.SetSystemAbilityManager(manager);
    ASSERT_TRUE(manager->AddSystemAbility(FAKE_SERVICE_ID, sptr<IRemoteObject>(&fake.Service())));
    const std::function<bool()> holders[] = {
        IsThere,
        [&] { return !manager->RemoveSystemAbility(4711); },
        [] { return VoLogPrint(0, LOG_LEVEL_ERROR, 0, "TEST", "to standard error") > 0; },
        [&] { return managers.SetSystemAbilityManager(manager), true; },
        [] { return BrokerRegistration::Get().NewInstance(u"nobody's", nullptr) == nullptr; },
    };
    ::testing::internal::CaptureStderr();
    std::atomic<bool> isOver{false};
    std::vector<std::future<void>> threads;
    for (const auto& holder : holders) {
        threads.push_back(std::async(std::launch::async, [&] {
            while (!isOver) {
                holder();
            }
        }));
    }
    int failures = 0;
    for (int forks = 0; forks < 50; ++forks) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(LIMIT_SECONDS);
            const auto isFree = [](const auto& holder) { return holder(); };
            ::_exit(std::all_of(std::begin(holders), std::end(holders), isFree) ? 0 : 1);
        }
        failures += StatusOf(child) == 0 ? 0 : 1;
    }
    isOver = true;
    threads.clear();
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(manager->RemoveSystemAbility(FAKE_SERVICE_ID));
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
