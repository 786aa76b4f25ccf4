// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>

#include "abuse/processes.h"
#include "abuse/requests.h"
#include "support/calls.h"
#include "varn/host/ability_manager.h"
#include "varn/host/log_sink.h"

// Starting, stopping and dying, with clients about.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

class LifeTest : public ::testing::Test {
protected:
    LifeTest() { Host::SetLogLevel(LOG_LEVEL_FATAL); }

    const SocketFolder folder_;
    const std::vector<std::string> command_ = {ABUSE_SERVICE, "--directory", folder_.Path(), "--workers", "1"};
    const sptr<IPCObjectStub> fake_{new FakeService()};
};

TEST_F(LifeTest, StopFinishesWhatRunsAndRefusesTheRest)
{
    constexpr int32_t LONG = 4000000;
    const std::string gate = folder_.Path() + "/gate";
    ASSERT_EQ(0, ::mkfifo(gate.c_str(), 0600));
    ServiceProcess service(folder_, command_);
    ASSERT_TRUE(service.IsReady()) << service.Log();
    const Peer deaf(folder_.SocketPath());
    const Peer reading(folder_.SocketPath());
    for (const Peer* peer : {&deaf, &reading}) {
        EXPECT_TRUE(peer->Send(MakeByAppFrame("bulk", LONG)));
        pollfd entry = {peer->GetFd(), POLLIN, 0};
        EXPECT_EQ(1, ::poll(&entry, 1, 30000));
    }
    const Peer running(folder_.SocketPath());
    const Peer waiting(folder_.SocketPath());
    EXPECT_TRUE(running.Send(MakeByAppFrame("gate", 0)));
    const int open = ::open(gate.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(waiting.Send(honestFrame));
    ::kill(service.Pid(), SIGTERM);
    EXPECT_TRUE(Eventually([this] { return !std::filesystem::exists(folder_.SocketPath()); }));
    ::close(open);
    EXPECT_LT(LONG, reading.ReadReply().size()) << "it lost its answer behind one that does not read";
    EXPECT_NE("", running.ReadReply());
    EXPECT_TRUE(running.IsClosed());
    EXPECT_TRUE(waiting.IsClosed());
    EXPECT_EQ(0, service.End(SIGTERM));
}

// The child has copies of all descriptors. It stays, or ends as a program does, and neither may be felt.
TEST_F(LifeTest, ForkedChildDoesNotTouchItsParentsServer)
{
    auto server = std::make_unique<Host::AbilityServer>(FAKE_SERVICE_ID, fake_);
    ASSERT_TRUE(server->Start());
    const Peer kept(folder_.SocketPath());
    EXPECT_TRUE(IsAnswered(kept));
    EXPECT_EXIT((server->Stop(), server.reset(), ::_exit(0)), ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(std::filesystem::exists(folder_.SocketPath()));
    EXPECT_TRUE(IsAnswered(kept));
    EXPECT_TRUE(IsAnswered(Peer(folder_.SocketPath())));
    const pid_t staying = ::fork();
    if (staying == 0) {
        ::pause();
        ::_exit(0);
    }
    server->Stop();
    EXPECT_TRUE(kept.IsClosed());
    EXPECT_TRUE(server->Start());
    EXPECT_TRUE(IsAnswered(Peer(folder_.SocketPath())));
    ::kill(staying, SIGKILL);
    EXPECT_EQ(staying, ::waitpid(staying, nullptr, 0));
}

TEST_F(LifeTest, SignalsAreNotForTheServersThreads)
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGUSR1);
    Host::AbilityServer server(FAKE_SERVICE_ID, fake_);
    ASSERT_TRUE(server.Start());
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::kill(::getpid(), SIGUSR1);
    EXPECT_TRUE(IsAnswered(Peer(folder_.SocketPath())));
    const timespec now = {};
    EXPECT_EQ(SIGUSR1, ::sigtimedwait(&signals, nullptr, &now));
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
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
                fd = ::fcntl(fd, F_DUPFD_CLOEXEC, 300);
            }
            for (size_t index = 0; index < descriptors.size(); ++index) {
                ::dup2(descriptors[index], static_cast<int>(index) + 3);
            }
            const std::string count = std::to_string(descriptors.size());
            ::setenv("LISTEN_PID", sockets.pid != nullptr ? sockets.pid : std::to_string(::getpid()).c_str(), 1);
            ::setenv("LISTEN_FDS", sockets.count != nullptr ? sockets.count : count.c_str(), 1);
        });
        ASSERT_TRUE(service.IsReady()) << service.Log();
        const size_t before = CountEntries(service.Pid(), "fd");
        for (const bool isAfterRestart : {false, true}) {
            const Peer peer(sockets.served);
            ASSERT_TRUE(IsAnswered(peer)) << isAfterRestart;
            EXPECT_TRUE(Host::SendDescriptor(peer.GetFd(), honestFrame, STDIN_FILENO) < 0 || peer.IsClosed());
            ::kill(service.Pid(), SIGHUP);
            ASSERT_TRUE(service.IsReady()) << service.Log();
        }
        EXPECT_TRUE(Eventually([&] { return CountEntries(service.Pid(), "fd") <= before; }));
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
    Host::AbilityServer server(FAKE_SERVICE_ID, fake_, options);
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
    ASSERT_EQ(0, ::mkdir(deep.c_str(), 0700));
    const std::string folder = "the socket folder " + folder_.Path();
    const std::string size = std::to_string(deep.size() + std::strlen("/65993.sock"));
    const struct {
        std::string path;
        mode_t mode;
        uid_t owner;
        std::string problem;
    } cases[] = {{folder_.Path(), 0777, 0, folder + " may be written by others than its owner; use a private one"},
                 {folder_.Path(), 01777, 0, folder + " may be written by others than its owner; use a private one"},
                 {folder_.Path(), 0770, 0, folder + " may be written by others than its owner; use a private one"},
                 {folder_.Path(), 0700, 54321, folder + " belongs to user 54321, not to root or to user 0"},
                 {deep, 0700, 0, "the path " + deep + "/65993.sock is " + size + " bytes long, a socket's may be 107"}};
    const LogCapture log;
    for (const auto& unsafe : cases) {
        if (unsafe.owner != 0 && ::geteuid() != 0) {
            continue;
        }
        ASSERT_EQ(0, ::chmod(unsafe.path.c_str(), unsafe.mode));
        ASSERT_EQ(0, ::chown(unsafe.path.c_str(), unsafe.owner == 0 ? ::geteuid() : unsafe.owner, -1U));
        ::setenv("VARN_ABILITY_DIR", unsafe.path.c_str(), 1);
        EXPECT_FALSE(Host::AbilityServer(FAKE_SERVICE_ID, fake_).Start());
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(nullptr, Host::AbilityManager::Get()->LoadSystemAbility(FAKE_SERVICE_ID, 10));
        EXPECT_GT(std::chrono::seconds(10), std::chrono::steady_clock::now() - begin) << "it will not get better";
        for (const std::string& line : {"cannot be started: " + unsafe.problem, "cannot be found: " + unsafe.problem}) {
            EXPECT_NE(std::string::npos, log.Everything().find("service 65993 " + line)) << log.Everything();
        }
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
