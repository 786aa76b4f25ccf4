// SPDX-License-Identifier: Apache-2.0
#include "host/server/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/thread_safety.h"
#include "host/base/unix_socket.h"
#include "host/wire/socket_folder.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// Clients that have connected and are not accepted yet. The kernel cuts it down to its own limit.
constexpr int BACKLOG = 1024;

// Any app may connect; who may use what is decided request by request.
constexpr mode_t SOCKET_MODE = 0666;
constexpr mode_t LOCK_MODE = 0600;

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

bool IsListeningUnixStream(int fd)
{
    const auto has = [fd](int option, int expected) {
        int value = 0;
        socklen_t size = sizeof(value);
        return ::getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 && value == expected;
    };
    return has(SO_DOMAIN, AF_UNIX) && has(SO_TYPE, SOCK_STREAM) && has(SO_ACCEPTCONN, 1);
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

Mutex handedMutex;

// The sockets that the init system handed over (LISTEN_PID and LISTEN_FDS) and that no server has taken. The variables
// are consumed by the first that asks, unless they are meant for another process. What is not taken stays open: it may
// be for other parts of the program.
std::vector<int>& HandedSockets() REQUIRES(handedMutex)
{
    // Never destroyed: a server of static storage gives its socket back behind the end of main.
    static auto& sockets = *new std::vector<int>(ReadEnvironment());
    return sockets;
}

// The one for the service whose socket file is called `fileName`: bound to a file of that name, or the only one there
// is, unless its name is that of another service. Holds nothing when there is none.
UniqueFd TakeHandedSocket(const std::string& fileName)
{
    const MutexLock lock(handedMutex);
    std::vector<int>& sockets = HandedSockets();
    const bool isOnly = sockets.size() == 1;
    const auto chosen = std::find_if(sockets.begin(), sockets.end(), [&fileName, isOnly](int socket) {
        const std::string name = BoundFileName(socket);
        return name == fileName || (isOnly && !IsNameOfService(name));
    });
    UniqueFd socket;
    if (chosen != sockets.end()) {
        socket = UniqueFd(*chosen);
        sockets.erase(chosen);
    }
    return socket;
}

std::string Failure(const std::string& what, const std::string& path)
{
    const int error = errno;
    return what + " " + path + ": " + ErrorText(error);
}

bool IsSameFile(int fd, int folder, const std::string& name)
{
    struct stat open = {};
    struct stat named = {};
    return ::fstat(fd, &open) == 0 && ::fstatat(folder, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

}  // namespace

std::string Listener::Open(const std::string& directory, int32_t id)
{
    path_ = SocketPath(directory, id);
    fileName_ = path_.substr(directory.size() + 1);
    lockName_ = fileName_ + ".lock";
    socket_ = PeerSocket(TakeHandedSocket(fileName_));
    if (socket_) {
        socket_.RefuseDescriptors();
        // The other end of the hand-over may have left it blocking.
        const bool isReady = ::fcntl(socket_.Get(), F_SETFL, O_NONBLOCK) == 0;
        return isReady ? std::string() : Failure("fcntl", "of the handed socket");
    }
    std::string problem;
    if (CheckSocketFolder(directory, problem) != 0) {
        return problem;
    }
    folder_ = UniqueFd(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder_ ? Bind() : Failure("open", directory);
}

std::string Listener::Lock()
{
    // The one before may remove the file between our open and our lock; then there is a new one to lock.
    constexpr int ATTEMPTS = 100;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        UniqueFd lock(::openat(folder_.Get(), lockName_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, LOCK_MODE));
        if (!lock) {
            return Failure("open", path_ + ".lock");
        }
        if (::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
            return errno == EWOULDBLOCK ? "another process serves " + path_ : Failure("lock", path_ + ".lock");
        }
        if (IsSameFile(lock.Get(), folder_.Get(), lockName_)) {
            lock_ = std::move(lock);
            return {};
        }
    }
    return "the lock " + path_ + ".lock is taken and removed again and again";
}

std::string Listener::Bind()
{
    // First, since a path that cannot be bound must not leave a lock behind.
    sockaddr_un address;
    std::string problem = MakeSocketAddress(path_, address);
    if (problem.empty()) {
        problem = Lock();
    }
    if (!problem.empty()) {
        return problem;
    }
    const auto* where = reinterpret_cast<const sockaddr*>(&address);
    // The lock says that none of our servers lives, but another program may listen there, the init system for one.
    UniqueFd probe = MakeUnixSocket();
    if (!probe) {
        return Failure("socket for", path_);
    }
    if (::connect(probe.Get(), where, sizeof(address)) == 0 || errno == EAGAIN) {
        return "another process listens on " + path_;
    }
    struct stat stale = {};
    if (::fstatat(folder_.Get(), fileName_.c_str(), &stale, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISSOCK(stale.st_mode)) {
            return path_ + " is in the way and is not a socket";
        }
        if (::unlinkat(folder_.Get(), fileName_.c_str(), 0) != 0) {
            return Failure("remove the stale socket", path_);
        }
    }
    PeerSocket socket(MakeUnixSocket());
    if (!socket || ::bind(socket.Get(), where, sizeof(address)) != 0) {
        return Failure("bind", path_);
    }
    socket_ = std::move(socket);
    // Before anybody can connect: a connection inherits it at that moment.
    socket_.RefuseDescriptors();
    if (::fchmodat(folder_.Get(), fileName_.c_str(), SOCKET_MODE, 0) != 0 || ::listen(socket_.Get(), BACKLOG) != 0) {
        return Failure("listen on", path_);
    }
    return {};
}

void Listener::Withdraw()
{
    // The files go while the lock is held, so that they cannot be another server's.
    if (lock_) {
        if (socket_) {
            ::unlinkat(folder_.Get(), fileName_.c_str(), 0);
        }
        ::unlinkat(folder_.Get(), lockName_.c_str(), 0);
        lock_ = {};
    }
}

Listener::~Listener()
{
    Withdraw();
    if (socket_ && !folder_) {
        // The init system hands it over only once.
        const MutexLock lock(handedMutex);
        HandedSockets().push_back(socket_.Release());
    }
}

}  // namespace VARN::Host
