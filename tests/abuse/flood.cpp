// SPDX-License-Identifier: Apache-2.0
#include "abuse/flood.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <memory>

#include "platform/raw_client.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

struct Stream {
    explicit Stream(const std::string& path) : socket(path) { ::fcntl(socket.GetFd(), F_SETFL, O_NONBLOCK); }
    const Host::RawClient socket;
    size_t sent = 0;
};

// A TCP connection to itself, full of data that nobody reads, and patient.
int MakeStickyDescriptor()
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    const int listening = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int sticky = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto* where = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(listening, where, size) != 0 || ::listen(listening, 1) != 0 ||
        ::getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        ::connect(sticky, where, size) != 0) {
        ::_exit(1);
    }
    const std::string bytes(65536, 'x');
    while (::send(sticky, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    const linger hour = {1, 3600};
    ::setsockopt(sticky, SOL_SOCKET, SO_LINGER, &hour, sizeof(hour));
    return sticky;
}

// One byte at least goes with the descriptor. A kernel that does not let it through says so.
ssize_t SendWithDescriptor(int fd, const char* bytes, size_t size)
{
    const int sticky = MakeStickyDescriptor();
    const ssize_t sent = Host::SendDescriptor(fd, std::string(bytes, size), sticky);
    const int error = errno;
    if (sent < 0) {
        // Nobody else has it: this process must not be the one that waits.
        const linger none = {1, 0};
        ::setsockopt(sticky, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    }
    ::close(sticky);
    errno = error;
    return sent < 0 && error == EPERM ? ::send(fd, bytes, size, MSG_NOSIGNAL) : sent;
}

// False: the connection is over.
bool Advance(Stream& stream, const Flood& flood, short events)
{
    const int fd = stream.socket.GetFd();
    bool isAnswered = false;
    if ((events & POLLIN) != 0) {
        char rest[65536];
        const ssize_t got = ::recv(fd, rest, sizeof(rest), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN)) {
            return false;
        }
        isAnswered = got > 0;
    }
    if (stream.sent == flood.bytes.size() &&
        (flood.then == Flood::Then::SEND_AGAIN || (flood.then == Flood::Then::SEND_WHEN_ANSWERED && isAnswered))) {
        stream.sent = 0;
    }
    const size_t left = std::min(flood.bytes.size() - stream.sent, flood.bytesAtATime);
    if (left > 0 && (events & POLLOUT) != 0) {
        const char* from = flood.bytes.data() + stream.sent;
        const bool isFirst = stream.sent == 0;
        const ssize_t part = flood.sendsDescriptors && isFirst ? SendWithDescriptor(fd, from, left)
                                                               : ::send(fd, from, left, MSG_NOSIGNAL);
        if (part < 0 && errno != EAGAIN) {
            return false;
        }
        stream.sent += part > 0 ? static_cast<size_t>(part) : 0;
    }
    return (events & (POLLHUP | POLLERR)) == 0 &&
           (flood.then != Flood::Then::HANG_UP || stream.sent < flood.bytes.size());
}

[[noreturn]] void Run(const std::string& path, const Flood& flood, int ready)
{
    constexpr int PACE_MILLISECONDS = 20;
    std::vector<std::unique_ptr<Stream>> streams(flood.connections);
    std::vector<pollfd> entries(flood.connections);
    const bool isSlow = flood.bytesAtATime != SIZE_MAX;
    for (size_t rounds = 0;; ++rounds) {
        for (size_t index = 0; index < streams.size(); ++index) {
            if (!streams[index]) {
                streams[index] = std::make_unique<Stream>(path);
            }
            const bool sends = streams[index]->sent < flood.bytes.size() || flood.then == Flood::Then::SEND_AGAIN;
            entries[index] = {streams[index]->socket.GetFd(),
                              static_cast<short>((flood.isReading ? POLLIN : 0) | (sends ? POLLOUT : 0)), 0};
        }
        ::poll(entries.data(), entries.size(), PACE_MILLISECONDS);
        bool haveAllSent = true;
        for (size_t index = 0; index < streams.size(); ++index) {
            if (entries[index].revents != 0 && !Advance(*streams[index], flood, entries[index].revents)) {
                streams[index].reset();
            }
            haveAllSent = haveAllSent && streams[index] && streams[index]->sent == flood.bytes.size();
        }
        if (ready >= 0 && (haveAllSent || rounds > 100)) {
            ::close(std::exchange(ready, -1));
        }
        if (isSlow) {
            ::poll(nullptr, 0, PACE_MILLISECONDS);
        }
    }
}

}  // namespace

Attackers::Attackers(const std::string& path, size_t users, const Flood& flood)
{
    int ready[2] = {};
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        return;
    }
    for (uid_t user = FIRST_ATTACKER; users_.size() < users; ++user) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(ready[0]);
            // It is the service that is to be fair, whatever the scheduler is.
            ::setpriority(PRIO_PROCESS, 0, 19);
            ::syscall(SYS_setresuid, user, user, user);
            Run(path, flood, ready[1]);
        }
        users_.push_back(pid);
    }
    ::close(ready[1]);
    pollfd entry = {ready[0], POLLIN, 0};
    constexpr int PATIENCE_MILLISECONDS = 1000;
    ::poll(&entry, 1, PATIENCE_MILLISECONDS);
    ::close(ready[0]);
}

Attackers::~Attackers()
{
    for (const pid_t user : users_) {
        ::kill(user, SIGKILL);
    }
    for (const pid_t user : users_) {
        ::waitpid(user, nullptr, 0);
    }
}

// The standard library's hash of a string takes eight bytes at a time into its state: state = (state ^ mix(bytes)) * M.
// Every step can be undone, so to any first eight bytes there are second ones that lead to the same state.
std::vector<std::string> MakeCollidingNames()
{
    constexpr uint64_t M = 0xc6a4a7935bd1e995;
    constexpr uint64_t SEED = 0xc70f6907;
    constexpr size_t COUNT = 5000;
    const auto shift = [](uint64_t value) { return value ^ value >> 47; };
    uint64_t inverse = M;
    for (int round = 0; round < 6; ++round) {
        inverse *= 2 - M * inverse;
    }
    std::vector<std::string> names;
    for (uint64_t first = 0; first < COUNT; ++first) {
        const uint64_t state = (SEED ^ 2 * sizeof(first) * M ^ shift(first * M) * M) * M;
        const uint64_t second = shift(state * inverse) * inverse;
        names.push_back(Host::BytesOf(first) + Host::BytesOf(second));
    }
    return names;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
