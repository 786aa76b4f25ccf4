// SPDX-License-Identifier: Apache-2.0
#include "host/server/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <utility>

#include "host/base/unix_socket.h"
#include "host/server/activation.h"
#include "host/wire/socket_folder.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// Clients that have connected and are not accepted yet. The kernel cuts it down to its own limit.
constexpr int BACKLOG = 1024;

// Any app may connect; who may use what is decided request by request.
constexpr mode_t SOCKET_MODE = 0666;
constexpr mode_t LOCK_MODE = 0600;

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
    socket_ = PeerSocket(TakeActivatedSocket(fileName_));
    isHanded_ = static_cast<bool>(socket_);
    std::string problem;
    if (isHanded_) {
        socket_.RefuseDescriptors();
        // The other end of the hand-over may have left it blocking.
        if (::fcntl(socket_.Get(), F_SETFL, O_NONBLOCK) != 0) {
            problem = Failure("fcntl", "of the handed socket");
        }
    } else if (CheckSocketFolder(directory, problem) == 0) {
        folder_ = UniqueFd(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        problem = folder_ ? Bind() : Failure("open", directory);
    }
    if (!problem.empty()) {
        Close();
    }
    return problem;
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
    socket_ = PeerSocket(MakeUnixSocket());
    if (!socket_ || ::bind(socket_.Get(), where, sizeof(address)) != 0) {
        problem = Failure("bind", path_);
        socket_ = PeerSocket();
        return problem;
    }
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
        lock_.Reset();
    }
}

void Listener::Close()
{
    Withdraw();
    folder_.Reset();
    if (isHanded_ && socket_) {
        GiveActivatedSocketBack(UniqueFd(socket_.Release()));
    }
    socket_ = PeerSocket();
}

}  // namespace VARN::Host
