// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <thread>

#include "abuse/processes.h"
#include "abuse/requests.h"
#include "support/calls.h"
#include "varn/host/log_sink.h"

// Starting, stopping and dying, with clients about.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

// In a process of its own, which exits with 0 for true.
template <class Function>
pid_t Fork(Function function)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(function() ? 0 : 1);
    }
    return pid;
}

int WaitFor(pid_t pid)
{
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

class LifeTest : public ::testing::Test {
protected:
    LifeTest() { Host::SetLogLevel(LOG_LEVEL_FATAL); }

    const SocketFolder folder_;
    const std::vector<std::string> command_ = {ABUSE_SERVICE, "--directory", folder_.Path()};
};

// The reply is as many bytes long as the code says; number 1 waits until it is released.
class Slow : public IPCObjectStub {
public:
    int32_t OnRemoteRequest(uint32_t code, MessageParcel&, MessageParcel& reply, MessageOption&) override
    {
        ++executed;
        if (code == 1) {
            begun.set_value();
            released.wait();
        }
        return reply.WriteString(std::string(code, 'x')) ? 0 : 1;
    }
    std::atomic<int> executed{0};
    std::promise<void> begun;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
};

TEST_F(LifeTest, StopFinishesWhatRunsAndRefusesTheRest)
{
    constexpr uint32_t LONG = 4000000;
    const sptr<Slow> slow(new Slow());
    Host::AbilityServerOptions options;
    options.workers = 1;
    Host::AbilityServer server(FAKE_SERVICE_ID, slow, options);
    ASSERT_TRUE(server.Start());
    const Peer deaf(folder_.SocketPath());
    const Peer reading(folder_.SocketPath());
    for (const Peer* peer : {&deaf, &reading}) {
        EXPECT_TRUE(peer->Send(Host::MakeFrame(LONG, "")));
        pollfd entry = {peer->GetFd(), POLLIN, 0};
        EXPECT_EQ(1, ::poll(&entry, 1, 30000));
    }
    const Peer running(folder_.SocketPath());
    const Peer waiting(folder_.SocketPath());
    EXPECT_TRUE(running.Send(Host::MakeFrame(1, "")));
    slow->begun.get_future().wait();
    EXPECT_TRUE(waiting.Send(Host::MakeFrame(2, "")));
    const auto begin = std::chrono::steady_clock::now();
    std::thread stopper([&server] { server.Stop(); });
    EXPECT_TRUE(Eventually([this] { return !std::filesystem::exists(folder_.SocketPath()); }));
    slow->release.set_value();
    EXPECT_LT(LONG, reading.ReadReply().size()) << "it lost its answer behind one that does not read";
    EXPECT_EQ(Host::MakeFrame(1, Host::MakeBody("x"), 2), running.ReadReply());
    EXPECT_TRUE(running.IsClosed());
    EXPECT_TRUE(waiting.IsClosed());
    stopper.join();
    EXPECT_GT(std::chrono::seconds(30), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(3, slow->executed);
}

// The child has copies of all descriptors. It stays, or ends as a program does, and neither may be felt.
TEST_F(LifeTest, ForkedChildDoesNotTouchItsParentsServer)
{
    auto server = std::make_unique<Host::AbilityServer>(FAKE_SERVICE_ID, sptr<IPCObjectStub>(new Slow()));
    ASSERT_TRUE(server->Start());
    const auto asks = [](const Peer& peer) { return peer.Send(Host::MakeFrame(2, "")) && !peer.ReadReply().empty(); };
    const Peer kept(folder_.SocketPath());
    EXPECT_TRUE(asks(kept));
    EXPECT_EQ(0, WaitFor(Fork([&server] {
                  server->Stop();
                  server.reset();
                  return true;
              })));
    EXPECT_TRUE(std::filesystem::exists(folder_.SocketPath()));
    EXPECT_TRUE(asks(kept));
    EXPECT_TRUE(asks(Peer(folder_.SocketPath())));
    const pid_t staying = Fork([] { return ::pause() == 0; });
    server->Stop();
    EXPECT_TRUE(kept.IsClosed());
    EXPECT_TRUE(server->Start());
    EXPECT_TRUE(asks(Peer(folder_.SocketPath())));
    ::kill(staying, SIGKILL);
    WaitFor(staying);
}

TEST_F(LifeTest, SignalsAreNotForTheServersThreads)
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGUSR1);
    Host::AbilityServer server(FAKE_SERVICE_ID, sptr<IPCObjectStub>(new Slow()));
    ASSERT_TRUE(server.Start());
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::kill(::getpid(), SIGUSR1);
    const Peer peer(folder_.SocketPath());
    EXPECT_TRUE(peer.Send(Host::MakeFrame(2, "")));
    EXPECT_NE("", peer.ReadReply());
    const timespec now = {};
    EXPECT_EQ(SIGUSR1, ::sigtimedwait(&signals, nullptr, &now));
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

TEST_F(LifeTest, ManyLivesLeaveNothing)
{
    Host::AbilityServer server(FAKE_SERVICE_ID, sptr<IPCObjectStub>(new FakeService()));
    size_t descriptors = 0;
    size_t threads = 0;
    for (int life = 0; life <= 300; ++life) {
        ASSERT_TRUE(server.Start());
        {
            const Peer peer(folder_.SocketPath());
            EXPECT_TRUE(peer.Send(Host::MakeFrame(1, "")));
            EXPECT_TRUE(life % 2 == 0 || !peer.ReadReply().empty());
        }
        server.Stop();
        if (life == 0) {
            descriptors = CountEntries(::getpid(), "fd");
            threads = CountEntries(::getpid(), "task");
        }
    }
    EXPECT_TRUE(Eventually([=] { return CountEntries(::getpid(), "fd") == descriptors; }));
    EXPECT_TRUE(Eventually([=] { return CountEntries(::getpid(), "task") == threads; }));
    EXPECT_TRUE(std::filesystem::is_empty(folder_.Path()));
}

TEST_F(LifeTest, OnlyTheServicesOwnSocketIsTakenOfThoseHandedOver)
{
    const std::string own = folder_.SocketPath();
    const std::string other = folder_.Path() + "/1.sock";
    const std::string odd = folder_.Path() + "/odd.status.sock";
    const std::string connected = folder_.Path() + "/connected";
    const std::string noNumber = "LISTEN_FDS is not a number from 1 to 256";
    const struct {
        std::vector<std::string> handed;
        std::string served;  // where the service answers then
        std::string logged{};
        const char* pid = nullptr;    // null: the service's own
        const char* count = nullptr;  // null: as many as there are
    } cases[] = {{{own}, own},
                 {{odd, other, own}, own},
                 {{odd}, odd},
                 {{other}, own},
                 {{odd, other}, own},
                 {{connected, odd}, odd, "descriptor 3 of socket activation is not a listening Unix stream socket"},
                 {{odd}, own, "", "1"},
                 {{odd}, own, "", "x"},
                 {{odd}, own, "", "", ""},
                 {{odd}, own, noNumber, nullptr, ""},
                 {{odd}, own, noNumber, nullptr, "0"},
                 {{odd}, own, noNumber, nullptr, "-1"},
                 {{odd}, own, noNumber, nullptr, "1x"},
                 {{odd}, own, noNumber, nullptr, "257"},
                 {{odd}, own, noNumber, nullptr, "2147483648"},
                 {{odd}, odd, "descriptor 202 of socket activation is not", nullptr, "200"}};
    for (const auto& sockets : cases) {
        SCOPED_TRACE(testing::PrintToString(sockets.handed) + (sockets.count != nullptr ? sockets.count : ""));
        std::deque<Host::RawServer> listening;
        std::vector<int> descriptors;
        for (const std::string& path : sockets.handed) {
            descriptors.push_back(listening.emplace_back(path).GetFd());
        }
        std::deque<Peer> peers;
        if (sockets.handed.front() == connected) {
            descriptors.front() = peers.emplace_back(connected).GetFd();
        }
        // As the init system does it, in the process that becomes the service.
        ServiceProcess service(folder_, command_, [&] {
            // First far away from the numbers that they are to have.
            for (int& fd : descriptors) {
                fd = ::fcntl(fd, F_DUPFD, 300);
            }
            int number = 3;
            for (const int fd : descriptors) {
                ::dup2(fd, number++);
                ::close(fd);
            }
            const std::string count = std::to_string(descriptors.size());
            ::setenv("LISTEN_PID", sockets.pid != nullptr ? sockets.pid : std::to_string(::getpid()).c_str(), 1);
            ::setenv("LISTEN_FDS", sockets.count != nullptr ? sockets.count : count.c_str(), 1);
        });
        ASSERT_TRUE(service.IsReady()) << service.Log();
        const size_t before = CountEntries(service.Pid(), "fd");
        for (const bool isAfterRestart : {false, true}) {
            const Peer asking(sockets.served);
            EXPECT_TRUE(asking.Send(honestFrame));
            EXPECT_NE("", asking.ReadReply()) << isAfterRestart;
            ::kill(service.Pid(), SIGHUP);
            EXPECT_TRUE(service.IsReady()) << service.Log();
        }
        EXPECT_TRUE(Eventually([&] { return CountEntries(service.Pid(), "fd") == before; }));
        EXPECT_NE(std::string::npos, service.Log().find(sockets.logged)) << service.Log();
        EXPECT_EQ(0, service.End(SIGTERM));
        for (const std::string& path : sockets.handed) {
            EXPECT_TRUE(std::filesystem::remove(path)) << "the file is the init system's";
        }
        EXPECT_FALSE(std::filesystem::exists(own));
        std::filesystem::remove(folder_.Path() + "/log");
    }
}

TEST_F(LifeTest, RelativeFolderIsTheOneOfTheStart)
{
    const std::filesystem::path before = std::filesystem::current_path();
    const SocketFolder elsewhere;
    const std::ofstream file(elsewhere.SocketPath());
    std::filesystem::current_path(folder_.Path());
    Host::AbilityServerOptions options;
    options.directory = ".";
    Host::AbilityServer server(FAKE_SERVICE_ID, sptr<IPCObjectStub>(new FakeService()), options);
    EXPECT_TRUE(server.Start());
    std::filesystem::current_path(elsewhere.Path());
    server.Stop();
    EXPECT_TRUE(std::filesystem::is_empty(folder_.Path()));
    EXPECT_TRUE(std::filesystem::exists(elsewhere.SocketPath())) << "a file of somebody else is gone";
    std::filesystem::current_path(before);
}

TEST_F(LifeTest, UnsafeFoldersAreRefusedOnBothSides)
{
    const std::string deep = folder_.Path() + "/" + std::string(100, 'd');
    ASSERT_EQ(::mkdir(deep.c_str(), 0700), 0);
    const struct {
        std::string path;
        mode_t mode;
        uid_t owner;
        std::string problem;
    } cases[] = {{folder_.Path(), 0777, 0, "may be written by others than its owner; use a private one"},
                 {folder_.Path(), 01777, 0, "may be written by others than its owner"},
                 {folder_.Path(), 0770, 0, "may be written by others than its owner"},
                 {folder_.Path(), 0700, 54321, "belongs to user 54321, not to root or to user 0"},
                 {deep, 0700, 0, " bytes long, a socket's may be 107"}};
    LogCapture log;
    for (const auto& unsafe : cases) {
        if (unsafe.owner != 0 && ::geteuid() != 0) {
            continue;
        }
        ASSERT_EQ(::chmod(unsafe.path.c_str(), unsafe.mode), 0);
        ASSERT_EQ(::chown(unsafe.path.c_str(), unsafe.owner == 0 ? ::geteuid() : unsafe.owner, -1U), 0);
        ::setenv("VARN_ABILITY_DIR", unsafe.path.c_str(), 1);
        const std::string messages[] = {"service 65993 cannot be started: ", "service 65993 cannot be found: "};
        for (const std::string& message : messages) {
            log.Clear();
            if (&message == &messages[0]) {
                EXPECT_FALSE(Host::AbilityServer(FAKE_SERVICE_ID, sptr<IPCObjectStub>(new FakeService())).Start());
            } else {
                EXPECT_EQ(SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->LoadSystemAbility(
                              FAKE_SERVICE_ID, INT32_MAX),
                          nullptr);
            }
            EXPECT_NE(log.Everything().find(message), std::string::npos) << log.Everything();
            EXPECT_NE(log.Everything().find(unsafe.problem), std::string::npos) << log.Everything();
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
