// SPDX-License-Identifier: Apache-2.0
#include <sys/resource.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <iterator>
#include <new>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/host_fixture.h"

// Client and server together: what they find, carry and tell.
namespace VARN::Host {
namespace {

TEST_F(HostTest, WhatCannotBeFoundOrStartedSaysWhy)
{
    EXPECT_EQ(nullptr, Load());
    EXPECT_THAT(Log(), HasSubstr("connect to " + Path() + ": No such file or directory (errno 2)"));
    EXPECT_FALSE(AbilityServer(ID, nullptr).Start());
    AbilityServerOptions options;
    options.directory = folder_.Path() + "/none";
    EXPECT_FALSE(AbilityServer(ID, service_, options).Start());
    EXPECT_THAT(Log(), HasSubstr("/none cannot be used: No such file or directory (errno 2)"));
}

TEST_F(HostTest, UnsafeFoldersAreRefusedOnBothSides)
{
    const std::string deep = folder_.Path() + "/" + std::string(100, 'd');
    std::filesystem::create_directory(deep);
    const std::string writable = "may be written by others than its owner; use a private one";
    const struct {
        std::string path;
        mode_t mode;
        uid_t owner;
        std::string problem;
    } cases[] = {{folder_.Path(), 0702, 0, writable},
                 {folder_.Path(), 01777, 0, writable},
                 {folder_.Path(), 0770, 0, writable},
                 {folder_.Path(), 0700, 54321, "belongs to user 54321, not to root or to user 0"},
                 {deep, 0700, 0, std::to_string(deep.size() + 11) + " bytes long, a socket's may be 107"}};
    for (const auto& unsafe : cases) {
        if (unsafe.owner != 0 && ::geteuid() != 0) {
            continue;
        }
        SCOPED_TRACE(unsafe.problem);
        ASSERT_EQ(0, ::chmod(unsafe.path.c_str(), unsafe.mode));
        ASSERT_EQ(0, ::chown(unsafe.path.c_str(), unsafe.owner == 0 ? ::geteuid() : unsafe.owner, -1U));
        ::setenv("VARN_ABILITY_DIR", unsafe.path.c_str(), 1);
        log_.Clear();
        EXPECT_FALSE(AbilityServer(ID, service_).Start());
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(nullptr, Load(10));
        EXPECT_GT(std::chrono::seconds(10), std::chrono::steady_clock::now() - begin) << "it will not get better";
        const std::string what =
            unsafe.path == deep ? "the path " + deep + "/65993.sock is " : "the socket folder " + unsafe.path + " ";
        EXPECT_THAT(Log(), HasSubstr("service 65993 cannot be started: " + what + unsafe.problem));
        EXPECT_THAT(Log(), HasSubstr("service 65993 cannot be found: " + what + unsafe.problem));
    }
    std::filesystem::remove(deep);
}

TEST_F(HostTest, RelativeFolderIsTheOneOfTheStart)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder_.Path());
    AbilityServerOptions options;
    options.directory = ".";
    ASSERT_NO_FATAL_FAILURE(Serve(options));
    std::filesystem::current_path(before);
}

TEST_F(HostTest, StatusReplyAndCallerCrossTheSocketAndAnObserverSeesNoPayload)
{
    Caller caller{};
    std::vector<Transaction> seen;
    AbilityServerOptions options;
    options.observer = [&](const Transaction& transaction) { seen.push_back(transaction); };
    const sptr<IPCObjectStub> service(new ScriptedStub([&caller](uint32_t code, auto& data, auto& reply, auto&) {
        caller = CurrentCaller();
        return reply.WriteString(data.ReadString()) && reply.WriteInt32(0) ? static_cast<int32_t>(code) + 1 : 0;
    }));
    ASSERT_NO_FATAL_FAILURE(Serve(service, options));
    const std::string bulky(5000000, '\0');
    EXPECT_EQ((Answer{6, bulky}), Ask(Load(), 5, bulky));
    EXPECT_EQ(::getpid(), caller.pid);
    EXPECT_EQ(::geteuid(), caller.uid);
    EXPECT_EQ(::getegid(), caller.gid);
    EXPECT_EQ(::getpid(), CurrentCaller().pid);
    // The observer is told after the reply is out; when the server has stopped, it has been.
    server_.reset();
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
    const sptr<IPCObjectStub> service(new ScriptedStub([](uint32_t code, auto&, auto&, auto&) -> int32_t {
        code == 1 ? throw std::runtime_error("broken") : code == 2 ? throw std::bad_alloc() : throw code;
    }));
    ASSERT_NO_FATAL_FAILURE(Serve(service));
    for (const sptr<IRemoteObject>& object : {sptr<IRemoteObject>(service), Load()}) {
        EXPECT_EQ(IPC_SERVICE_FAILED, Ask(object, 1, "").first);
        EXPECT_EQ(IPC_NO_MEMORY, Ask(object, 2, "").first);
        EXPECT_EQ(IPC_SERVICE_FAILED, Ask(object, 3, "").first);
    }
    EXPECT_THAT(Log(), HasSubstr("request 1 failed: an exception left the service: broken"));
}

// One worker is busy and one waits: the third stays with a connection, and must miss nothing of it and of the others.
TEST_F(HostTest, WorkerThatStaysMissesNothing)
{
    AbilityServerOptions options;
    options.workers = 3;
    options.stallTimeout = std::chrono::milliseconds(50);
    ASSERT_NO_FATAL_FAILURE(Serve(options));
    const auto asks = [](const RawClient& client, int times) {
        for (int time = 0; time < times; ++time) {
            EXPECT_TRUE(IsAnswered(client));
        }
    };
    const RawClient slow(Path());
    const RawClient slower(Path());
    const RawClient stalling(Path());
    const RawClient halfClosing(Path());
    const RawClient patient(Path());
    EXPECT_TRUE(slow.Send(MakeFrame(2, askBody)));
    EXPECT_TRUE(AwaitAtGate(1));
    asks(stalling, 100);
    EXPECT_TRUE(stalling.Send(askFrame + askFrame.substr(0, 9)));
    EXPECT_EQ(replyFrame, stalling.Receive(2 * replyFrame.size())) << "the half request runs into its time";
    asks(halfClosing, 100);
    EXPECT_TRUE(halfClosing.Send(askFrame));
    EXPECT_EQ(0, ::shutdown(halfClosing.GetFd(), SHUT_WR));
    EXPECT_EQ(replyFrame, halfClosing.Receive(2 * replyFrame.size()));
    asks(patient, 100);
    EXPECT_TRUE(slower.Send(MakeFrame(3, askBody)));
    EXPECT_TRUE(AwaitAtGate(2));
    asks(RawClient(Path()), 1);
    asks(patient, 1);
    OpenGate();
    EXPECT_EQ(MakeFrame(2, askBody, 2), slow.Receive(replyFrame.size()));
    EXPECT_EQ(MakeFrame(3, askBody, 2), slower.Receive(replyFrame.size()));
}

TEST_F(HostTest, RestartIsMetWithAFreshConnectionAndAnObjectOfThisProcessComesFirst)
{
    ASSERT_NO_FATAL_FAILURE(Serve());
    EXPECT_FALSE(server_->Start());
    const sptr<IRemoteObject> kept = Load();
    EXPECT_EQ((Answer{0, "before"}), Ask(kept, 1, "before"));
    server_->Stop();
    EXPECT_EQ(IPC_DEAD_OBJECT, Ask(kept, 1, "while it is gone").first);
    EXPECT_TRUE(kept->IsObjectDead());
    ASSERT_TRUE(server_->Start());
    EXPECT_EQ((Answer{0, "after"}), Ask(kept, 1, "after"));
    EXPECT_FALSE(kept->IsObjectDead());
    EXPECT_EQ(kept, Load());
    EXPECT_TRUE(kept->IsProxyObject());
    const sptr<AbilityManager> manager = AbilityManager::Get();
    EXPECT_FALSE(manager->AddSystemAbility(ID, nullptr));
    EXPECT_TRUE(manager->AddSystemAbility(ID, service_));
    EXPECT_FALSE(manager->AddSystemAbility(ID, service_));
    EXPECT_EQ(service_, Load());
    EXPECT_TRUE(manager->RemoveSystemAbility(ID));
    EXPECT_FALSE(manager->RemoveSystemAbility(ID));
    EXPECT_EQ(kept, Load());
    EXPECT_EQ(manager, SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager());
}

// How often the server's thread that accepts connections has gone to sleep.
long WatcherSleeps()
{
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(thread.path() / "status");
        const std::string text{std::istreambuf_iterator<char>(status), {}};
        std::smatch found;
        if (std::regex_search(text, found, std::regex("Name:\tvarn-watcher\n[^]*\nvoluntary_ctxt_switches:\t(.*)"))) {
            return std::stol(found[1]);
        }
    }
    return -1;
}

TEST_F(HostTest, RequestsDoNotWakeTheThreadThatAccepts)
{
    ASSERT_NO_FATAL_FAILURE(Serve());
    const sptr<IRemoteObject> service = Load();
    long before = -1;
    for (int time = 0; time < 1000; ++time) {
        ASSERT_EQ((Answer{0, "text"}), Ask(service, 1, "text"));
        before = time == 0 ? WatcherSleeps() : before;
    }
    EXPECT_LE(0, before) << "no thread has the name";
    EXPECT_GT(100, WatcherSleeps() - before);
}

TEST_F(HostTest, OnlyAStaleSocketIsReplaced)
{
    {
        const RawServer crashed(Path());
    }
    ASSERT_NO_FATAL_FAILURE(Serve()) << "a stale socket was in the way";
    AbilityServer second(ID, service_);
    EXPECT_FALSE(second.Start());
    EXPECT_THAT(Log(), HasSubstr("another process serves " + Path()));
    server_.reset();
    {
        const RawServer foreign(Path());
        EXPECT_FALSE(second.Start());
        EXPECT_THAT(Log(), HasSubstr("another process listens on " + Path()));
        EXPECT_TRUE(RawClient(Path()).Send(askFrame)) << "it is still there";
    }
    std::filesystem::remove(Path());
}

// So many numbers, all different, that swapped ones show.
TEST_F(HostTest, StatisticsAndLinesTellWhatIsStuckAndWhatIsHeld)
{
    AbilityServerOptions options;
    options.workers = 2;
    options.maxSpareWorkers = 4;  // a quarter of them in the place of stuck ones
    options.stuckAfter = std::chrono::seconds(1);
    options.stallTimeout = std::chrono::milliseconds::max();
    const rlimit few = {100, 100};
    rlimit before = {};
    ::getrlimit(RLIMIT_NOFILE, &before);
    ::prlimit(0, RLIMIT_NOFILE, &few, nullptr);
    ASSERT_NO_FATAL_FAILURE(Serve(options));
    EXPECT_THAT(Log(), HasSubstr("service 65993: at most 75 connections instead of 1024, since the process "
                                 "may open 100 descriptors"));
    const RawClient half(Path());
    EXPECT_TRUE(half.Send(askFrame.substr(0, askFrame.size() - 1)));
    for (int time = 0; time < 5; ++time) {
        const RawClient garbage(Path());
        EXPECT_TRUE(garbage.Send(std::string(20, 'x')));
        EXPECT_EQ("", garbage.Receive(1));
    }
    const RawClient deaf(Path());
    EXPECT_TRUE(deaf.Send(MakeFrame(5000000, "")) &&
                Eventually([&] { return server_->Statistics().requestBytes * server_->Statistics().replyBytes != 0; }));
    std::deque<RawClient> slow;
    while (slow.size() < 3) {
        EXPECT_TRUE(slow.emplace_back(Path()).Send(MakeFrame(7, askBody)));
    }
    EXPECT_TRUE(AwaitAtGate(3)) << "what waits may take the place of a stuck one";
    std::deque<RawClient> waiting;
    while (waiting.size() < 4) {
        EXPECT_TRUE(waiting.emplace_back(Path()).Send(askFrame));
    }
    ServerStatistics all;
    EXPECT_TRUE(Eventually([&] { return (all = server_->Statistics()).waiting == 4 && all.workersAtWork == 3; }));
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
    OpenGate();
    for (const RawClient& client : waiting) {
        EXPECT_EQ(replyFrame, client.Receive(replyFrame.size()));
    }
    EXPECT_TRUE(half.Send(askFrame.substr(askFrame.size() - 1)));
    EXPECT_EQ(replyFrame, half.Receive(replyFrame.size())) << "its time is long";
    EXPECT_TRUE(Eventually([&] { return server_->Statistics().requestBytes == 0; })) << "they are held for ever";
    server_.reset();
    ::prlimit(0, RLIMIT_NOFILE, &before, nullptr);
    const std::string log = Log();
    const std::regex line("service 65993: worker ([1-9][0-9]*) is stuck: request 7 of uid " +
                          std::to_string(::geteuid()) + " runs for [1-9][0-9]{3,} ms\n");
    std::set<std::string> told;
    for (std::sregex_iterator found(log.begin(), log.end(), line), end; found != end; ++found) {
        EXPECT_TRUE(told.insert((*found)[1]).second) << log;
    }
    EXPECT_FALSE(told.empty()) << log;
}

}  // namespace
}  // namespace VARN::Host
