// SPDX-License-Identifier: Apache-2.0
#include "host/server/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>

#include "host/base/error_text.h"
#include "host/base/unix_socket.h"
#include "host/server/activation.h"
#include "host/wire/socket_folder.h"

namespace VARN::Host {

namespace {

// Clients that have connected and are not accepted yet. The kernel cuts it down to its own limit.
constexpr int BACKLOG = 1024;

// Any app may connect; who may use what is decided request by request.
constexpr mode_t SOCKET_MODE = 0666;

std::string Failure(const std::string& what, const std::string& path)
{
    const int error = errno;
    return what + " " + path + ": " + ErrorText(error);
}

bool IsSameFile(int fd, const std::string& path)
{
    struct stat open = {};
    struct stat named = {};
    return ::fstat(fd, &open) == 0 && ::stat(path.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

}  // namespace

std::string Listener::Open(const std::string& directory, int32_t id)
{
    const std::string path = SocketPath(directory, id);
    socket_ = TakeActivatedSocket(path.substr(directory.size() + 1));
    if (socket_) {
        // The other end of the hand-over may have left it blocking.
        return ::fcntl(socket_.Get(), F_SETFL, O_NONBLOCK) == 0 ? std::string()
                                                                : Failure("fcntl", "of the handed socket");
    }
    std::string problem;
    if (CheckSocketFolder(directory, problem) != 0) {
        return problem;
    }
    // A path that cannot be bound must not leave a lock behind.
    sockaddr_un address;
    problem = MakeSocketAddress(path, address);
    if (!problem.empty()) {
        return problem;
    }
    path_ = path;
    lockPath_ = path + ".lock";
    problem = Lock();
    if (problem.empty()) {
        problem = Bind();
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
        UniqueFd lock(::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!lock) {
            return Failure("open", lockPath_);
        }
        if (::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
            return errno == EWOULDBLOCK ? "another process serves " + path_ : Failure("lock", lockPath_);
        }
        if (IsSameFile(lock.Get(), lockPath_)) {
            lock_ = std::move(lock);
            return {};
        }
    }
    return "the lock " + lockPath_ + " is taken and removed again and again";
}

std::string Listener::Bind()
{
    sockaddr_un address;
    std::string problem = MakeSocketAddress(path_, address);
    if (!problem.empty()) {
        return problem;
    }
    const auto* where = reinterpret_cast<const sockaddr*>(&address);
    // The lock says that none of our servers lives, but somebody else may listen there, the init system for one.
    UniqueFd probe = MakeUnixSocket();
    if (!probe) {
        return Failure("socket for", path_);
    }
    if (::connect(probe.Get(), where, sizeof(address)) == 0 || errno == EAGAIN) {
        return "another process listens on " + path_;
    }
    struct stat stale = {};
    if (::lstat(path_.c_str(), &stale) == 0) {
        if (!S_ISSOCK(stale.st_mode)) {
            return path_ + " is in the way and is not a socket";
        }
        if (::unlink(path_.c_str()) != 0) {
            return Failure("remove the stale socket", path_);
        }
    }
    socket_ = MakeUnixSocket();
    if (!socket_ || ::bind(socket_.Get(), where, sizeof(address)) != 0) {
        problem = Failure("bind", path_);
        socket_.Reset();
        return problem;
    }
    if (::chmod(path_.c_str(), SOCKET_MODE) != 0 || ::listen(socket_.Get(), BACKLOG) != 0) {
        return Failure("listen on", path_);
    }
    return {};
}

void Listener::Withdraw()
{
    // The files go while the lock is held, so that they cannot be another server's.
    if (lock_) {
        if (socket_) {
            ::unlink(path_.c_str());
        }
        ::unlink(lockPath_.c_str());
        lock_.Reset();
    }
}

void Listener::Close()
{
    Withdraw();
    socket_.Reset();
}

}  // namespace VARN::Host
