// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "varn/parcel.h"

namespace VARN::Host {

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

protected:
    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address_); }

private:
    const int fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address_ = {AF_UNIX, {}};
};

class RawClient : public RawSocket {
public:
    explicit RawClient(const std::string& path)
        : RawSocket(path), isConnected_(::connect(GetFd(), Address(), sizeof(sockaddr_un)) == 0)
    {
    }

    bool IsConnected() const { return isConnected_; }

private:
    const bool isConnected_;
};

// A socket that listens, and whose file stays behind as that of a crashed service would.
class RawServer : public RawSocket {
public:
    explicit RawServer(const std::string& path)
        : RawSocket(path),
          isListening_(::bind(GetFd(), Address(), sizeof(sockaddr_un)) == 0 && ::listen(GetFd(), 8) == 0)
    {
    }

    bool IsListening() const { return isListening_; }

private:
    const bool isListening_;
};

// Waits until the condition holds, or gives up after a time that no healthy system needs.
inline bool Eventually(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    // Asked once for each answer: what held a moment ago may not hold any more, and need not.
    bool isTrue = condition();
    while (!isTrue && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        isTrue = condition();
    }
    return isTrue;
}

}  // namespace VARN::Host
