// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

// Frames as bytes, sockets that speak them, and the folder where they meet a server or a client.
namespace VARN::Host {

constexpr std::chrono::seconds PATIENCE{30};
constexpr size_t HEADER_SIZE = 20;

template <class T>
std::string BytesOf(T value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

// A frame, written down independently of the platform's own definition: request (kind 1) or reply (kind 2).
inline std::string MakeFrame(uint32_t code, const std::string& body, uint16_t kind = 1, int32_t status = 0)
{
    return "VARN" + BytesOf(uint16_t{1}) + BytesOf(kind) + BytesOf(code) + BytesOf(status) +
           BytesOf(static_cast<uint32_t>(body.size())) + body;
}

// A body of one string.
inline std::string MakeBody(const std::string& text)
{
    std::string body = BytesOf(static_cast<int32_t>(text.size())) + text;
    body.resize((body.size() + 4) / 4 * 4);
    return body;
}

// Sends a descriptor along with the bytes. Returns what sendmsg returns.
inline ssize_t SendDescriptor(int socket, std::string bytes, int descriptor)
{
    iovec piece = {bytes.data(), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(head), &descriptor, sizeof(int));
    return ::sendmsg(socket, &message, MSG_NOSIGNAL);
}

// Whether the kernel keeps descriptors out that the socket's peer would send; some do not know of that.
inline bool CanRefuseDescriptors(int socket)
{
    constexpr int PASS_RIGHTS = 83;
    int value = 0;
    socklen_t size = sizeof(value);
    return ::getsockopt(socket, SOL_SOCKET, PASS_RIGHTS, &value, &size) == 0;
}

// A socket that speaks bytes, for what an honest peer would never send. It closes its descriptor.
class RawSocket {
public:
    explicit RawSocket(const std::string& path) { std::memcpy(address_.sun_path, path.c_str(), path.size()); }
    explicit RawSocket(int accepted) : fd_(accepted) {}
    ~RawSocket() { ::close(fd_); }

    int GetFd() const { return fd_; }

    // Whether all of it could be sent.
    bool Send(const std::string& bytes) const
    {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // That many bytes, or fewer when the peer ends first.
    std::string Receive(size_t size) const
    {
        std::string bytes(size, '\0');
        const ssize_t received = size == 0 ? 0 : ::recv(fd_, bytes.data(), size, MSG_WAITALL);
        bytes.resize(received < 0 ? 0 : static_cast<size_t>(received));
        return bytes;
    }

    // The next frame, as far as it comes. A body that is longer than `most` stays where it is.
    std::string ReceiveFrame(size_t most = SIZE_MAX) const
    {
        std::string frame = Receive(HEADER_SIZE);
        uint32_t length = 0;
        if (frame.size() == HEADER_SIZE) {
            std::memcpy(&length, &frame[HEADER_SIZE - sizeof(length)], sizeof(length));
        }
        return frame + Receive(length <= most ? length : 0);
    }

    // Waits for one of the events, or for the end of the connection (POLLHUP), and reads nothing.
    bool Sees(short events, std::chrono::milliseconds patience = PATIENCE) const
    {
        pollfd entry = {fd_, events, 0};
        return ::poll(&entry, 1, static_cast<int>(patience.count())) == 1;
    }

    // Whether the peer closes the connection and says nothing before.
    bool IsClosed() const
    {
        char byte = 0;
        const ssize_t got = Sees(POLLIN) ? ::recv(fd_, &byte, 1, 0) : 1;
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }

protected:
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address_); }

private:
    const int fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address_ = {AF_UNIX, {}};
};

// It does not wait for ever.
class RawClient : public RawSocket {
public:
    explicit RawClient(const std::string& path) : RawSocket(path)
    {
        const timeval patience = {PATIENCE.count(), 0};
        ::setsockopt(GetFd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        ::setsockopt(GetFd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
        static_cast<void>(::connect(GetFd(), Address(), sizeof(sockaddr_un)));
    }
};

// A socket that listens, and whose file stays behind as that of a crashed service would.
class RawServer : public RawSocket {
public:
    static constexpr int BACKLOG = 8;  // with one more the queue is full

    explicit RawServer(const std::string& path) : RawSocket(path)
    {
        static_cast<void>(::bind(GetFd(), Address(), sizeof(sockaddr_un)));
        ::listen(GetFd(), BACKLOG);
    }
};

// A folder for one socket, where the clients of this process look for it while it exists.
class SocketFolder {
public:
    SocketFolder()
    {
        // Other users are among the clients.
        ::chmod(::mkdtemp(path_.data()), 0755);
        ::setenv("VARN_ABILITY_DIR", path_.c_str(), 1);
    }
    ~SocketFolder()
    {
        ::unsetenv("VARN_ABILITY_DIR");
        std::filesystem::remove_all(path_);
    }

    const std::string& Path() const { return path_; }
    std::string SocketPath() const { return path_ + "/65993.sock"; }

private:
    std::string path_ = "/tmp/varn-test.XXXXXX";
};

// Waits until the condition holds, or gives up after a time that no healthy system needs.
inline bool Eventually(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    // Asked once for each answer: what held a moment ago may not hold any more, and need not.
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace VARN::Host
