// SPDX-License-Identifier: Apache-2.0
#include "bench/contenders/unix_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace bench {
namespace {

constexpr int kBacklog = 128;

int Check(int result, const char* step)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
    return result;
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

}  // namespace

std::string SocketPath(const std::string& directory)
{
    return directory + "/bench.sock";
}

int ListenAt(const std::string& directory)
{
    const sockaddr_un address = AddressOf(SocketPath(directory));
    const int descriptor = Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    Check(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
    Check(listen(descriptor, kBacklog), "listen");
    return descriptor;
}

int ConnectTo(const std::string& directory)
{
    const sockaddr_un address = AddressOf(SocketPath(directory));
    const int descriptor = Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    Check(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "connect");
    return descriptor;
}

void ServeOnThreads(int listener, const std::function<void(int)>& handle)
{
    for (;;) {
        const int descriptor = Check(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
        std::thread(handle, descriptor).detach();
    }
}

MessageSocket::~MessageSocket()
{
    close(descriptor_);
}

std::string_view MessageSocket::Call(std::string_view request)
{
    const std::string_view reply = Send(request) ? Receive() : std::string_view();
    if (reply.empty()) {
        throw std::runtime_error("the server is gone");
    }
    return reply;
}

std::string_view MessageSocket::Receive()
{
    size_t received = 0;
    size_t length = sizeof(uint32_t);
    while (received < length) {
        const ssize_t bytes = read(descriptor_, buffer_.data() + received, buffer_.size() - received);
        if (bytes <= 0) {
            return {};
        }
        received += static_cast<size_t>(bytes);
        if (received >= sizeof(uint32_t)) {
            uint32_t announced = 0;
            std::memcpy(&announced, buffer_.data(), sizeof(announced));
            length = announced;
            if (length > buffer_.size()) {
                buffer_.resize(length);
            }
        }
    }
    return {buffer_.data(), length};
}

bool MessageSocket::Send(std::string_view message) const
{
    while (!message.empty()) {
        const ssize_t bytes = send(descriptor_, message.data(), message.size(), MSG_NOSIGNAL);
        if (bytes <= 0) {
            return false;
        }
        message.remove_prefix(static_cast<size_t>(bytes));
    }
    return true;
}

}  // namespace bench
