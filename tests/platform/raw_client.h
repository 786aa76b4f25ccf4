// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

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

inline sockaddr_un MakeAddress(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

// A peer that speaks bytes, for what an honest client would never send.
class RawClient {
public:
    explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = MakeAddress(path);
        isConnected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawClient() { ::close(fd_); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool IsConnected() const { return isConnected_; }
    int GetFd() const { return fd_; }

    // Whether all of it could be sent.
    bool Send(const std::string& bytes) const
    {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t part = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (part <= 0) {
                return false;
            }
            sent += static_cast<size_t>(part);
        }
        return true;
    }

    // That many bytes, or fewer when the peer ends first.
    std::string Receive(size_t size) const
    {
        std::string bytes(size, '\0');
        size_t received = 0;
        while (received < size) {
            const ssize_t part = ::recv(fd_, bytes.data() + received, size - received, 0);
            if (part <= 0) {
                break;
            }
            received += static_cast<size_t>(part);
        }
        bytes.resize(received);
        return bytes;
    }

private:
    const int fd_;
    bool isConnected_ = false;
};

// A socket that listens, and whose file stays behind as that of a crashed service would.
class RawServer {
public:
    explicit RawServer(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = MakeAddress(path);
        isListening_ =
            ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 && ::listen(fd_, 8) == 0;
    }
    ~RawServer() { ::close(fd_); }
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    bool IsListening() const { return isListening_; }
    int GetFd() const { return fd_; }

private:
    const int fd_;
    bool isListening_ = false;
};

}  // namespace VARN::Host
