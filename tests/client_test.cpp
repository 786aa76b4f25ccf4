// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <new>
#include <string>
#include <thread>

#include "security_privacy/connect.h"
#include "security_privacy/contract.h"
#include "support/calls.h"
#include "varn/host/ability_manager.h"
#include "varn/log.h"

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
    const int32_t managers = fake.Manager().StrongCount();
    int calls = 0;
    const auto take = [&](const sptr<SecurityPrivacyServiceIntf>& proxy) {
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

TEST_F(Client, LetsOneThreadInAtATimeAndThatOneAgain)
{
    std::atomic<int> inside{0};
    const auto beAlone = [&inside](const FakeCall&) {
        EXPECT_EQ(1, ++inside);
        std::this_thread::yield();
        EXPECT_EQ(0, --inside);
        return FakeAnswer();
    };
    fake.Service().SetResponder(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, beAlone);
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
    for (const FakeServiceManager::Lookup& lookup : fake.Manager().Lookups()) {
        EXPECT_EQ(65993, lookup.systemAbilityId);
        EXPECT_EQ(4, lookup.timeoutSeconds);
    }
}

TEST_F(Client, ConnectTellsWhyNot)
{
    class OutOfMemory : public ISystemAbilityManager {
    public:
        sptr<IRemoteObject> LoadSystemAbility(int32_t, int32_t) override { throw std::bad_alloc(); }
    };
    const auto expect = [](ConnectError error, const std::string& line) {
        LogCapture log;
        const ConnectResult result = Connect(3);
        EXPECT_EQ(error, result.error);
        EXPECT_EQ(error == ConnectError::NONE, result.service != nullptr);
        EXPECT_EQ(Line(error == ConnectError::NONE ? DEBUG : ERROR, "Connect", line), log.Lines());
    };
    expect(ConnectError::NONE, "LoadSystemAbility succeed");
    EXPECT_EQ(3, fake.Manager().Lookups().back().timeoutSeconds);
    fake.Manager().SetPresence(FakePresence::ABSENT);
    expect(ConnectError::NO_SERVICE, "SA=65993 is nullptr, please check.");
    fake.Manager().SetPresence(FakePresence::DEAD);
    expect(ConnectError::SERVICE_DEAD, "SA is IsObjectDead, why load system ability return a dead SA?");
    fake.Manager().SetPresence(FakePresence::HERE);

    auto& managers = SystemAbilityManagerClient::GetInstance();
    const sptr<ISystemAbilityManager> manager = managers.GetSystemAbilityManager();
    managers.SetSystemAbilityManager(nullptr);
    expect(ConnectError::NO_MANAGER, "SAM is nullptr, please check.");
    managers.SetSystemAbilityManager(sptr<ISystemAbilityManager>(new OutOfMemory()));
    expect(ConnectError::NO_SERVICE, "out of memory.");
    EXPECT_EQ(-1, CallOperation(client, MessageCode::GTOKEN_POLICY_REMOVE_POLICY).result);
    EXPECT_EQ(-1, CallOperation(client, MessageCode::GTOKEN_POLICY_GET_POLICY).result);
    managers.SetSystemAbilityManager(manager);
}

bool IsThere()
{
    bool isThere = false;
    const auto look = [&isThere](const auto& service) { isThere = service != nullptr; };
    SecurityPrivacyClient::GetInstance().WithSystemAbilityProxy(look);
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

// One thread is inside a request all the time, each other one holds one lock most of the time. The fake manager is not
// asked, since it has a lock of its own.
TEST_F(Client, ChildOfAForkFindsEveryLockFree)
{
    const sptr<Host::AbilityManager> manager = Host::AbilityManager::Get();
    auto& managers = SystemAbilityManagerClient::GetInstance();
    managers.SetSystemAbilityManager(manager);
    ASSERT_TRUE(manager->AddSystemAbility(SECURITY_PRIVACY_SA_ID, sptr<IRemoteObject>(&fake.Service())));
    const std::function<bool()> holders[] = {
        [&] { return !manager->RemoveSystemAbility(4711); },
        [] { return VoLogPrint(0, LOG_LEVEL_ERROR, 0, "TEST", "to standard error") > 0; },
        [&] { return managers.SetSystemAbilityManager(manager), true; },
        [] { return BrokerRegistration::Get().NewInstance(u"nobody's", nullptr) == nullptr; },
    };
    ::testing::internal::CaptureStderr();
    std::atomic<bool> isOver{false};
    std::promise<void> inside;
    std::promise<void> leave;
    std::vector<std::future<void>> threads;
    threads.push_back(std::async(std::launch::async, [&] {
        client.WithSystemAbilityProxy([&](const auto&) {
            inside.set_value();
            leave.get_future().wait();
        });
    }));
    inside.get_future().wait();
    for (const auto& holder : holders) {
        threads.push_back(std::async(std::launch::async, [&isOver, holder] {
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
            ::_exit(IsThere() && std::all_of(std::begin(holders), std::end(holders), isFree) ? 0 : 1);
        }
        failures += StatusOf(child) == 0 ? 0 : 1;
    }
    isOver = true;
    leave.set_value();
    threads.clear();
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(manager->RemoveSystemAbility(SECURITY_PRIVACY_SA_ID));
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
