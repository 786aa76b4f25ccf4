// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
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

// Whether the child of a fork made now returns true from the function. A child that hangs is ended.
bool DoesInChild(const std::function<bool()>& function)
{
    constexpr unsigned LIMIT_SECONDS = 30;
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(LIMIT_SECONDS);
        ::_exit(function() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

bool Asks()
{
    return CallOperation(SecurityPrivacyClient::GetInstance(), MessageCode::GTOKEN_POLICY_REMOVE_POLICY).result == 9;
}

class Fork : public Client {
protected:
    // The service answers at once, except when this process has something else in mind.
    explicit Fork()
    {
        FakeAnswer nine;
        nine.result = 9;
        fake.Service().SetResponder(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, [this, nine](const FakeCall&) {
            if (::getpid() == parent && isHeld.exchange(false)) {
                inside.set_value();
                leave.get_future().wait();
            }
            return nine;
        });
    }

    const pid_t parent = ::getpid();
    std::atomic<bool> isHeld{false};
    std::promise<void> inside;
    std::promise<void> leave;
};

TEST_F(Fork, ChildAsksWhileAThreadOfItsParentIsInARequest)
{
    isHeld = true;
    std::thread other(Asks);
    inside.get_future().wait();
    EXPECT_TRUE(DoesInChild(Asks));
    leave.set_value();
    other.join();
    EXPECT_TRUE(Asks());
}

TEST_F(Fork, ChildMadeInsideACallbackHoldsTheLockUntilItLeaves)
{
    const auto isFree = [] {
        auto done = std::async(std::launch::async, Asks);
        const bool wasHeld = done.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
        return std::make_pair(std::move(done), wasHeld);
    };
    int child = -1;
    std::future<bool> waiting;
    client.WithSystemAbilityProxy([&](const auto&) {
        client.WithSystemAbilityProxy([&](const auto&) { child = ::fork(); });
        if (child == 0) {
            ::alarm(30);
            auto [done, wasHeld] = isFree();
            waiting = std::move(done);
            if (!wasHeld || !Asks()) {
                ::_exit(1);
            }
        }
    });
    if (child == 0) {
        ::_exit(waiting.get() && Asks() ? 0 : 2);
    }
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(Asks());
}

// Each thread holds one lock most of the time. The fake service is not asked, since it has locks of its own.
TEST_F(Fork, ChildFindsEveryLockFree)
{
    const sptr<Host::AbilityManager> manager = Host::AbilityManager::Get();
    SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(manager);
    ASSERT_TRUE(manager->AddSystemAbility(FAKE_SERVICE_ID, sptr<IRemoteObject>(&fake.Service())));
    const std::function<bool()> holders[] = {
        [&] {
            bool isThere = false;
            client.WithSystemAbilityProxy([&](const auto& service) { isThere = service != nullptr; });
            return isThere;
        },
        [&] { return !manager->RemoveSystemAbility(4711); },
        [] { return VoLogPrint(0, 6, 0, "TEST", "to standard error") > 0; },
        [&] { return SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(manager), true; },
        [&] { return BrokerRegistration::Get().NewInstance(u"nobody's", nullptr) == nullptr; },
    };
    const int standardError = ::dup(STDERR_FILENO);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDERR_FILENO);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (const auto& holder : holders) {
        threads.emplace_back([&isOver, holder] {
            while (!isOver) {
                holder();
            }
        });
    }
    int failures = 0;
    for (int child = 0; child < 50; ++child) {
        failures += DoesInChild([&] {
            return std::all_of(std::begin(holders), std::end(holders), [](const auto& holder) { return holder(); });
        })
                        ? 0
                        : 1;
    }
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    ::dup2(standardError, STDERR_FILENO);
    ::close(standardError);
    ::close(nowhere);
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(manager->RemoveSystemAbility(FAKE_SERVICE_ID));
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
