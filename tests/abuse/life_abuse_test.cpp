// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <deque>
#include <filesystem>

#include "abuse/processes.h"
#include "abuse/service_process.h"

// What takes a service in a process of its own: what it inherits, and a kernel that is not ours.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using ::testing::HasSubstr;

bool IsAnswered(const Host::RawClient& peer)
{
    return peer.Send(honestFrame) && peer.ReceiveFrame().size() > Host::HEADER_SIZE;
}

// On a kernel that lets descriptors in the connection is closed with them, whatever else was sent.
TEST(ServiceProcessTest, DescriptorsThatComeInEndTheConnection)
{
    const Host::SocketFolder folder;
    ServiceProcess service(folder, {}, TakeDescriptors);
    ASSERT_TRUE(service.IsReady()) << service.Log();
    for (const size_t size : {size_t{1}, Host::HEADER_SIZE + 1, honestFrame.size()}) {
        int pipe[2] = {};
        ASSERT_EQ(0, ::pipe2(pipe, O_CLOEXEC));
        const Host::RawSocket reader(pipe[0]);
        const Host::RawClient peer(folder.SocketPath());
        EXPECT_TRUE(IsAnswered(peer));
        EXPECT_EQ(static_cast<ssize_t>(size), Host::SendDescriptor(peer.GetFd(), honestFrame.substr(0, size), pipe[1]));
        ::close(pipe[1]);
        peer.Send(honestFrame.substr(size) + honestFrame);
        EXPECT_TRUE(peer.IsClosed());
        // Ends when the last writer is gone, which the service would be.
        EXPECT_TRUE(reader.Sees(POLLIN)) << "the descriptor is still open somewhere";
    }
    EXPECT_TRUE(IsAnswered(Host::RawClient(folder.SocketPath())));
    EXPECT_THAT(service.Log(), HasSubstr("limit descriptors sent along: uid "));
    EXPECT_THAT(service.Log(), HasSubstr("used 1, allowed 0"));
    EXPECT_EQ(0, service.End(SIGTERM));
}

TEST(ServiceProcessTest, OnlyTheServicesOwnSocketIsTakenOfThoseHandedOver)
{
    const Host::SocketFolder folder;
    const std::string own = folder.SocketPath();
    const std::string other = folder.Path() + "/1.sock";
    const std::string odd = folder.Path() + "/odd.status.sock";
    const std::string connected = folder.Path() + "/connected";
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
        const Host::RawClient peer(connected);
        if (sockets.handed.front() == connected) {
            descriptors.front() = peer.GetFd();
        }
        // As the init system does it, in the process that becomes the service.
        ServiceProcess service(folder, {}, [&] {
            // First far away from the numbers that they are to have.
            for (int& fd : descriptors) {
                fd = ::fcntl(fd, F_DUPFD_CLOEXEC, 300);
            }
            for (size_t index = 0; index < descriptors.size(); ++index) {
                ::dup2(descriptors[index], static_cast<int>(index) + 3);
            }
            ::close_range(static_cast<unsigned>(descriptors.size()) + 3, ~0U, 0);
            const std::string count = std::to_string(descriptors.size());
            ::setenv("LISTEN_PID", sockets.pid != nullptr ? sockets.pid : std::to_string(::getpid()).c_str(), 1);
            ::setenv("LISTEN_FDS", sockets.count != nullptr ? sockets.count : count.c_str(), 1);
        });
        ASSERT_TRUE(service.IsReady()) << service.Log();
        const size_t before = Host::CountEntries(service.Pid(), "fd");
        for (const bool isAfterRestart : {false, true}) {
            const Host::RawClient client(sockets.served);
            ASSERT_TRUE(IsAnswered(client)) << isAfterRestart;
            const bool isRefused = Host::SendDescriptor(client.GetFd(), honestFrame, STDIN_FILENO) < 0;
            EXPECT_EQ(Host::CanRefuseDescriptors(client.GetFd()), isRefused && errno == EPERM);
            EXPECT_TRUE(isRefused ? IsAnswered(client) : client.IsClosed()) << "refused when sent: " << isRefused;
            ::kill(service.Pid(), SIGHUP);
            ASSERT_TRUE(service.IsReady()) << service.Log();
        }
        EXPECT_TRUE(Host::Eventually([&] { return Host::CountEntries(service.Pid(), "fd") <= before; }));
        EXPECT_THAT(service.Log(), HasSubstr(sockets.logged));
        EXPECT_EQ(0, service.End(SIGTERM));
        for (const std::string& path : sockets.handed) {
            EXPECT_TRUE(std::filesystem::remove(path)) << "the file is the init system's";
        }
        EXPECT_FALSE(std::filesystem::exists(own));
        std::filesystem::remove(folder.Path() + "/log");
    }
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
