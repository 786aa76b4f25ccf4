// SPDX-License-Identifier: Apache-2.0
#include "host/server/activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "host/base/thread_safety.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// Where the descriptors begin, by the protocol.
constexpr int FIRST_FD = 3;

// More than any unit hands over; it stops a senseless number from being taken for that many descriptors.
constexpr int MAX_FDS = 256;

// -1 when the variable is not a plain decimal number.
int ReadNumber(const char* name)
{
    const char* text = ::secure_getenv(name);
    if (text == nullptr) {
        return -1;
    }
    int number = -1;
    const char* end = text + std::strlen(text);
    const auto result = std::from_chars(text, end, number);
    return result.ec == std::errc() && result.ptr == end ? number : -1;
}

bool HasOption(int fd, int option, int expected)
{
    int value = 0;
    socklen_t size = sizeof(value);
    return ::getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 && value == expected;
}

bool IsListeningUnixStream(int fd)
{
    return HasOption(fd, SO_DOMAIN, AF_UNIX) && HasOption(fd, SO_TYPE, SOCK_STREAM) && HasOption(fd, SO_ACCEPTCONN, 1);
}

std::string BoundFileName(int fd)
{
    sockaddr_un address = {};
    socklen_t size = sizeof(address);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0 || address.sun_path[0] == '\0') {
        return {};
    }
    const std::string_view path(address.sun_path, ::strnlen(address.sun_path, sizeof(address.sun_path)));
    return std::string(path.substr(path.rfind('/') + 1));
}

// Whether a service of some number listens at a file of that name.
bool IsNameOfService(std::string_view fileName)
{
    const size_t digits = fileName.find_first_not_of("0123456789");
    return digits != 0 && digits != std::string_view::npos && fileName.substr(digits) == ".sock";
}

std::vector<int> ReadEnvironment()
{
    std::vector<int> sockets;
    const int pid = ReadNumber("LISTEN_PID");
    const int count = ReadNumber("LISTEN_FDS");
    // Another process's, or none: the variables are left for whom they are meant.
    if (pid != ::getpid()) {
        return sockets;
    }
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");
    ::unsetenv("LISTEN_FDNAMES");
    if (count < 1 || count > MAX_FDS) {
        PLATFORM_WARN("LISTEN_FDS is not a number from 1 to %d; socket activation is ignored", MAX_FDS);
        return sockets;
    }
    for (int fd = FIRST_FD; fd < FIRST_FD + count; ++fd) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        if (IsListeningUnixStream(fd)) {
            sockets.push_back(fd);
        } else {
            PLATFORM_WARN("descriptor %d of socket activation is not a listening Unix stream socket; it is ignored",
                          fd);
        }
    }
    return sockets;
}

struct Store {
    Mutex mutex;
    std::vector<int> sockets GUARDED_BY(mutex) = ReadEnvironment();
};

Store& TheStore()
{
    static Store store;
    return store;
}

}  // namespace

UniqueFd TakeActivatedSocket(const std::string& fileName)
{
    Store& store = TheStore();
    const MutexLock lock(store.mutex);
    std::vector<int>& sockets = store.sockets;
    auto chosen = std::find_if(sockets.begin(), sockets.end(),
                               [&fileName](int socket) { return BoundFileName(socket) == fileName; });
    if (chosen == sockets.end() && sockets.size() == 1 && !IsNameOfService(BoundFileName(sockets.front()))) {
        chosen = sockets.begin();
    }
    if (chosen == sockets.end()) {
        return UniqueFd();
    }
    UniqueFd socket(*chosen);
    sockets.erase(chosen);
    return socket;
}

void GiveActivatedSocketBack(UniqueFd socket)
{
    Store& store = TheStore();
    const MutexLock lock(store.mutex);
    store.sockets.push_back(socket.Get());
    static_cast<void>(socket.Release());
}

}  // namespace VARN::Host
