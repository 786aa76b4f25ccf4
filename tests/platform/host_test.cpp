// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <new>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/raw_client.h"
#include "varn/host/ability_manager.h"
#include "varn/host/ability_server.h"
#include "varn/host/log_sink.h"

namespace VARN::Host {
namespace {

constexpr int32_t ID = 4242;

class Service : public IPCObjectStub {
public:
    using Operation = std::function<int32_t(uint32_t code, MessageParcel& data, MessageParcel& reply)>;
    explicit Service(Operation operation, bool serial = false)
        : IPCObjectStub(u"test", serial), operation_(std::move(operation))
    {
    }
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption&) override
    {
        return operation_(code, data, reply);
    }

private:
    const Operation operation_;
};

const std::string askBody = MakeBody("text");
const std::string askFrame = MakeFrame(1, askBody);
const std::string replyFrame = MakeFrame(1, askBody, 2);

int32_t Echo(uint32_t code, MessageParcel& data, MessageParcel& reply)
{
    reply.WriteString(data.ReadString());
    return code == 1 ? 0 : static_cast<int32_t>(code);
}

using Answer = std::pair<int32_t, std::string>;

Answer Ask(const sptr<IRemoteObject>& object, uint32_t code, const std::string& text, int32_t waitTime = 60)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_SYNC, waitTime);
    data.WriteString(text);
    const int32_t status = object->SendRequest(code, data, reply, option);
    return {status, reply.ReadString()};
}

class HostTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(nullptr, ::mkdtemp(folder_.data()));
        ::setenv("VARN_ABILITY_DIR", folder_.c_str(), 1);
        SetLogSink([this](const LogLine& line) {
            const std::lock_guard<std::mutex> lock(mutex_);
            log_ += line.text + "\n";
        });
    }
    void TearDown() override
    {
        SetLogSink(nullptr);
        ::unsetenv("VARN_ABILITY_DIR");
        EXPECT_EQ(0, ::rmdir(folder_.c_str())) << "a server left a file behind";
    }
    std::string Log()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return log_;
    }
    std::string Path() const { return folder_ + "/" + std::to_string(ID) + ".sock"; }

    std::string folder_ = "/tmp/varn-host-test-XXXXXX";
    const sptr<AbilityManager> manager_ = AbilityManager::Get();
    const sptr<IPCObjectStub> echo_{new Service(Echo)};

private:
    std::mutex mutex_;
    std::string log_;
};

TEST_F(HostTest, WhatCannotBeFoundOrStartedSaysWhy)
{
    EXPECT_EQ(nullptr, manager_->LoadSystemAbility(ID, 0));
    EXPECT_NE(std::string::npos, Log().find("connect to " + Path() + ": No such file or directory (errno 2)")) << Log();
    EXPECT_FALSE(AbilityServer(ID, nullptr).Start());
    AbilityServerOptions options;
    options.directory = folder_ + "/none";
    EXPECT_FALSE(AbilityServer(ID, echo_, options).Start());
    EXPECT_NE(std::string::npos, Log().find("/none cannot be used: No such file or directory (errno 2)")) << Log();
}

TEST_F(HostTest, StatusReplyAndCallerCrossTheSocketAndAnObserverSeesNoPayload)
{
    Caller caller{};
    std::vector<Transaction> seen;
    AbilityServerOptions options;
    options.observer = [&](const Transaction& transaction) { seen.push_back(transaction); };
    AbilityServer server(ID, sptr<IPCObjectStub>(new Service([&caller](auto code, auto& data, auto& reply) {
                             caller = CurrentCaller();
                             return Echo(code, data, reply) + (reply.WriteInt32(0) ? 1 : 0);
                         })),
                         options);
    ASSERT_TRUE(server.Start());
    const std::string bulky(5000000, '\0');
    EXPECT_EQ((Answer{6, bulky}), Ask(manager_->LoadSystemAbility(ID, 0), 5, bulky));
    EXPECT_EQ(::getpid(), caller.pid);
    EXPECT_EQ(::geteuid(), caller.uid);
    EXPECT_EQ(::getegid(), caller.gid);
    EXPECT_EQ(::getpid(), CurrentCaller().pid);
    // The observer is told after the reply is out; when the server has stopped, it has been.
    server.Stop();
    ASSERT_EQ(1U, seen.size());
    EXPECT_EQ(5U, seen[0].code);
    EXPECT_EQ(6, seen[0].status);
    EXPECT_EQ(5000008U, seen[0].requestBytes);
    EXPECT_EQ(5000012U, seen[0].replyBytes);
    EXPECT_EQ(::geteuid(), seen[0].caller.uid);
    EXPECT_LT(0, seen[0].duration.count());
}

TEST_F(HostTest, ExceptionBecomesAStatusOnBothRoads)
{
    const sptr<IPCObjectStub> service(new Service([](uint32_t code, auto&, auto&) -> int32_t {
        if (code == 1) {
            throw std::runtime_error("broken");
        }
        if (code == 2) {
            throw std::bad_alloc();
        }
        throw code;
    }));
    AbilityServer server(ID, service);
    ASSERT_TRUE(server.Start());
    for (const sptr<IRemoteObject>& object : {sptr<IRemoteObject>(service), manager_->LoadSystemAbility(ID, 0)}) {
        EXPECT_EQ(IPC_SERVICE_FAILED, Ask(object, 1, "").first);
        EXPECT_EQ(IPC_NO_MEMORY, Ask(object, 2, "").first);
        EXPECT_EQ(IPC_SERVICE_FAILED, Ask(object, 3, "").first);
    }
    EXPECT_NE(std::string::npos, Log().find("request 1 failed: an exception left the service: broken"));
}

TEST_F(HostTest, SerialInvocationRunsOneAtATime)
{
    std::atomic<int> inside{0};
    const auto beAlone = [&inside](auto, auto&, auto&) {
        EXPECT_EQ(1, ++inside);
        std::this_thread::yield();
        return --inside;
    };
    AbilityServer server(ID, sptr<IPCObjectStub>(new Service(beAlone, true)));
    ASSERT_TRUE(server.Start());
    const auto ask = [this] {
        for (int request = 0; request < 100; ++request) {
            EXPECT_EQ(0, Ask(manager_->LoadSystemAbility(ID, 0), 1, "").first);
        }
    };
    std::thread other(ask);
    ask();
    other.join();
}

// One worker is busy and one waits: the third stays with a connection, and must miss nothing of it and of the others.
TEST_F(HostTest, WorkerThatStaysMissesNothing)
{
    std::array<std::promise<void>, 2> begun;
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    const sptr<IPCObjectStub> service(new Service([&](uint32_t code, MessageParcel& data, MessageParcel& reply) {
        if (code != 1) {
            begun[code - 2].set_value();
            released.wait();
        }
        return Echo(1, data, reply);
    }));
    AbilityServerOptions options;
    options.workers = 3;
    options.stallTimeout = std::chrono::milliseconds(50);
    AbilityServer server(ID, service, options);
    ASSERT_TRUE(server.Start());
    const auto asks = [&](const RawClient& client, int times) {
        for (int time = 0; time < times; ++time) {
            EXPECT_TRUE(client.Send(askFrame));
            EXPECT_EQ(replyFrame, client.Receive(replyFrame.size()));
        }
    };
    const RawClient slow(Path());
    const RawClient slower(Path());
    const RawClient stalling(Path());
    const RawClient halfClosing(Path());
    const RawClient patient(Path());
    EXPECT_TRUE(slow.Send(MakeFrame(2, askBody)));
    begun[0].get_future().wait();
    asks(stalling, 100);
    EXPECT_TRUE(stalling.Send(askFrame + askFrame.substr(0, 9)));
    EXPECT_EQ(replyFrame, stalling.Receive(2 * replyFrame.size())) << "the half request runs into its time";
    asks(halfClosing, 100);
    EXPECT_TRUE(halfClosing.Send(askFrame));
    EXPECT_EQ(0, ::shutdown(halfClosing.GetFd(), SHUT_WR));
    EXPECT_EQ(replyFrame, halfClosing.Receive(2 * replyFrame.size()));
    asks(patient, 100);
    EXPECT_TRUE(slower.Send(MakeFrame(3, askBody)));
    begun[1].get_future().wait();
    asks(RawClient(Path()), 1);
    asks(patient, 1);
    release.set_value();
    EXPECT_EQ(MakeFrame(2, askBody, 2), slow.Receive(replyFrame.size()));
    EXPECT_EQ(MakeFrame(3, askBody, 2), slower.Receive(replyFrame.size()));
}

TEST_F(HostTest, RestartIsMetWithAFreshConnectionAndAnObjectOfThisProcessComesFirst)
{
    AbilityServer server(ID, echo_);
    ASSERT_TRUE(server.Start());
    EXPECT_FALSE(server.Start());
    const sptr<IRemoteObject> kept = manager_->LoadSystemAbility(ID, 0);
    EXPECT_EQ((Answer{0, "before"}), Ask(kept, 1, "before"));
    server.Stop();
    EXPECT_EQ(IPC_DEAD_OBJECT, Ask(kept, 1, "while it is gone").first);
    EXPECT_TRUE(kept->IsObjectDead());
    ASSERT_TRUE(server.Start());
    rusage before = {};
    rusage after = {};
    ::getrusage(RUSAGE_SELF, &before);
    for (int time = 0; time < 1000; ++time) {
        EXPECT_EQ((Answer{0, "after"}), Ask(kept, 1, "after"));
    }
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_GT(2500, after.ru_nvcsw - before.ru_nvcsw) << "a call wakes one worker and then its caller";
    EXPECT_FALSE(kept->IsObjectDead());
    EXPECT_EQ(kept, manager_->LoadSystemAbility(ID, 0));
    EXPECT_TRUE(kept->IsProxyObject());
    EXPECT_FALSE(manager_->AddSystemAbility(ID, nullptr));
    EXPECT_TRUE(manager_->AddSystemAbility(ID, echo_));
    EXPECT_FALSE(manager_->AddSystemAbility(ID, echo_));
    EXPECT_EQ(echo_, manager_->LoadSystemAbility(ID, 0));
    EXPECT_TRUE(manager_->RemoveSystemAbility(ID));
    EXPECT_FALSE(manager_->RemoveSystemAbility(ID));
    EXPECT_EQ(kept, manager_->LoadSystemAbility(ID, 0));
    EXPECT_EQ(manager_, SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager());
}

TEST_F(HostTest, OnlyAStaleSocketIsReplaced)
{
    {
        const RawServer crashed(Path());
    }
    AbilityServer server(ID, echo_);
    EXPECT_TRUE(server.Start()) << "a stale socket was in the way";
    AbilityServer second(ID, echo_);
    EXPECT_FALSE(second.Start());
    EXPECT_NE(std::string::npos, Log().find("another process serves " + Path())) << Log();
    server.Stop();
    {
        const RawServer foreign(Path());
        EXPECT_FALSE(second.Start());
        EXPECT_NE(std::string::npos, Log().find("another process listens on " + Path())) << Log();
        EXPECT_TRUE(RawClient(Path()).IsConnected());
    }
    ::unlink(Path().c_str());
}

// So many numbers, all different, that swapped ones show.
TEST_F(HostTest, StatisticsAndLinesTellWhatIsStuckAndWhatIsHeld)
{
    std::atomic<size_t> running{0};
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    const sptr<IPCObjectStub> service(new Service([&](uint32_t code, MessageParcel& data, MessageParcel& reply) {
        if (code == 7) {
            ++running;
            released.wait();
        }
        return code == 8 ? reply.WriteString(std::string(5000000, 'x')) - 1 : Echo(1, data, reply);
    }));
    AbilityServerOptions options;
    options.workers = 2;
    options.maxSpareWorkers = 4;  // a quarter of them in the place of stuck ones
    options.stuckAfter = std::chrono::seconds(1);
    options.stallTimeout = std::chrono::milliseconds::max();
    const rlimit few = {100, 100};
    rlimit before = {};
    ::getrlimit(RLIMIT_NOFILE, &before);
    ::prlimit(0, RLIMIT_NOFILE, &few, nullptr);
    AbilityServer server(ID, service, options);
    ASSERT_TRUE(server.Start());
    EXPECT_NE(std::string::npos, Log().find("service 4242: at most 75 connections instead of 1024, since the process "
                                            "may open 100 descriptors"))
        << Log();
    const RawClient half(Path());
    EXPECT_TRUE(half.Send(askFrame.substr(0, askFrame.size() - 1)));
    for (int time = 0; time < 5; ++time) {
        const RawClient garbage(Path());
        EXPECT_TRUE(garbage.Send(std::string(20, 'x')));
        EXPECT_EQ("", garbage.Receive(1));
    }
    const RawClient deaf(Path());
    EXPECT_TRUE(deaf.Send(MakeFrame(8, "")) &&
                Eventually([&] { return server.Statistics().requestBytes * server.Statistics().replyBytes != 0; }));
    std::deque<RawClient> slow;
    while (slow.size() < 3) {
        EXPECT_TRUE(slow.emplace_back(Path()).Send(MakeFrame(7, askBody)));
    }
    EXPECT_TRUE(Eventually([&] { return running == 3; })) << "what waits may take the place of a stuck one";
    std::deque<RawClient> waiting;
    while (waiting.size() < 4) {
        EXPECT_TRUE(waiting.emplace_back(Path()).Send(askFrame));
    }
    ServerStatistics all;
    EXPECT_TRUE(Eventually([&] { return (all = server.Statistics()).waiting == 4 && all.workersAtWork == 3; }));
    ASSERT_EQ(1U, all.users.size());
    const UserStatistics& user = all.users[0];
    using Numbers = std::vector<uint64_t>;
    const Numbers expected = {9, 512, 5000008, 3, 4, 5};
    EXPECT_EQ(expected, (Numbers{all.connections, all.requestBytes, all.replyBytes, all.workersAtWork, all.waiting,
                                 all.refused}));
    EXPECT_EQ(expected, (Numbers{user.connections, user.requestBytes, user.replyBytes, user.workersAtWork, user.waiting,
                                 user.refused}));
    EXPECT_EQ(::geteuid(), user.uid);
    EXPECT_LE(1U, all.workersStuck);
    EXPECT_LE(3U, all.workers);
    release.set_value();
    for (const RawClient& client : waiting) {
        EXPECT_EQ(replyFrame, client.Receive(replyFrame.size()));
    }
    EXPECT_TRUE(half.Send(askFrame.substr(askFrame.size() - 1)));
    EXPECT_EQ(replyFrame, half.Receive(replyFrame.size())) << "its time is long";
    EXPECT_TRUE(Eventually([&] { return server.Statistics().requestBytes == 0; })) << "they are held for ever";
    server.Stop();
    ::prlimit(0, RLIMIT_NOFILE, &before, nullptr);
    const std::string log = Log();
    const std::regex line("service 4242: worker ([1-9][0-9]*) is stuck: request 7 of uid " +
                          std::to_string(::geteuid()) + " runs for [1-9][0-9]{3,} ms\n");
    std::set<std::string> told;
    for (std::sregex_iterator found(log.begin(), log.end(), line), end; found != end; ++found) {
        EXPECT_TRUE(told.insert((*found)[1]).second) << log;
    }
    EXPECT_FALSE(told.empty()) << log;
}

TEST_F(HostTest, AReplyMayFillItsBoundAndNotOneByteMore)
{
    constexpr uint32_t LONGEST = 0x100000 - sizeof(int32_t) - 1;
    AbilityServerOptions options;
    options.maxBytes = 0x100000;
    AbilityServer server(ID, sptr<IPCObjectStub>(new Service([](uint32_t code, auto&, MessageParcel& reply) {
                             return reply.WriteString(std::string(code, 'x')) || code > LONGEST + 1 ? 0 : 9;
                         })),
                         options);
    ASSERT_TRUE(server.Start());
    const sptr<IRemoteObject> object = manager_->LoadSystemAbility(ID, 0);
    EXPECT_EQ((Answer{0, std::string(LONGEST, 'x')}), Ask(object, LONGEST, ""));
    EXPECT_EQ((Answer{9, ""}), Ask(object, LONGEST + 1, ""));
    EXPECT_EQ((Answer{IPC_TOO_LARGE, ""}), Ask(object, LONGEST + 2, "")) << "the operation did not look";
    EXPECT_EQ((Answer{0, "x"}), Ask(object, 1, "")) << "its bound was another's";
    EXPECT_EQ(2U, server.Statistics().refused);
}

}  // namespace
}  // namespace VARN::Host
