// SPDX-License-Identifier: Apache-2.0
#include "abuse/processes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

constexpr std::chrono::seconds PATIENCE{30};

std::string ProcPath(pid_t pid, const std::string& name)
{
    return "/proc/" + std::to_string(pid) + "/" + name;
}

}  // namespace

SocketFolder::SocketFolder()
{
    EXPECT_NE(nullptr, ::mkdtemp(path_.data()));
    // Other users are among the clients.
    ::chmod(path_.c_str(), 0755);
    ::setenv("VARN_ABILITY_DIR", path_.c_str(), 1);
}

SocketFolder::~SocketFolder()
{
    ::unsetenv("VARN_ABILITY_DIR");
    std::filesystem::remove_all(path_);
}

size_t CountEntries(pid_t pid, const std::string& folder)
{
    std::error_code ignored;
    const std::filesystem::directory_iterator entries(ProcPath(pid, folder), ignored);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

size_t ReadSize(pid_t pid, const std::string& field)
{
    std::ifstream status(ProcPath(pid, "status"));
    std::string name;
    size_t size = 0;
    while (status >> name && name != field + ":") {
    }
    constexpr size_t KIBIBYTE = 1024;
    return status >> size && IS_SIZE_TELLING ? size * KIBIBYTE : 0;
}

AsUser::AsUser(uid_t user, gid_t group)
{
    ::syscall(SYS_setresgid, -1, group, -1);
    ::syscall(SYS_setresuid, -1, user, -1);
}

AsUser::~AsUser()
{
    ::syscall(SYS_setresuid, -1, 0, -1);
    ::syscall(SYS_setresgid, -1, 0, -1);
}

void ResetPeak(pid_t pid)
{
    std::ofstream(ProcPath(pid, "clear_refs")) << "5";
}

ServiceProcess::ServiceProcess(const SocketFolder& folder, std::vector<std::string> command,
                               const std::function<void()>& prepare)
    : logPath_(folder.Path() + "/log")
{
    int ends[2] = {};
    EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    std::vector<char*> arguments;
    for (std::string& argument : command) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
        // Freed memory goes back to the system at once, so that the process's size shows what is in use.
        ::setenv("MALLOC_ARENA_MAX", "1", 1);
        ::setenv("MALLOC_MMAP_THRESHOLD_", "65536", 1);
        ::setenv("MALLOC_TRIM_THRESHOLD_", "65536", 1);
        if (prepare) {
            prepare();
        }
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    output_ = ends[0];
}

ServiceProcess::~ServiceProcess()
{
    if (pid_ > 0) {
        End(SIGKILL);
    }
    ::close(output_);
}

std::string ServiceProcess::ReadLine() const
{
    std::string line;
    for (char byte = 0; ::read(output_, &byte, 1) == 1 && byte != '\n';) {
        line += byte;
    }
    return line;
}

std::string ServiceProcess::Log() const
{
    std::ifstream log(logPath_);
    return {std::istreambuf_iterator<char>(log), {}};
}

int ServiceProcess::End(int signal)
{
    int status = 0;
    ::kill(pid_, signal);
    if (!Eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; })) {
        ADD_FAILURE() << "it does not end";
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return status;
}

Peer::Peer(const std::string& path) : RawClient(path)
{
    timeval limit = {};
    limit.tv_sec = PATIENCE.count();
    ::setsockopt(GetFd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ::setsockopt(GetFd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

std::string Peer::ReadReply() const
{
    const size_t headerSize = Host::MakeFrame(0, "").size();
    std::string reply = Receive(headerSize);
    if (reply.size() == headerSize) {
        uint32_t length = 0;
        std::memcpy(&length, &reply[headerSize - sizeof(length)], sizeof(length));
        reply += Receive(length);
        EXPECT_EQ(headerSize + length, reply.size()) << "half a reply";
    }
    EXPECT_TRUE(reply.empty() || reply.size() >= headerSize) << "half a header";
    return reply;
}

bool Peer::IsClosed() const
{
    char byte = 0;
    const ssize_t got = ::recv(GetFd(), &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
