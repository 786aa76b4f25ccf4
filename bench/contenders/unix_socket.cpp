// SPDX-License-Identifier: Apache-2.0
#include "bench/contenders/unix_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "bench/harness.h"

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

// A socket that `bind` or `connect` has given the address in `directory`.
int SocketWith(decltype(connect)* attach, const std::string& directory)
{
    const std::string path = SocketPath(directory);
    sockaddr_un address{AF_UNIX, {}};
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    path.copy(address.sun_path, path.size());
    const int descriptor = Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    Check(attach(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), path.c_str());
    return descriptor;
}

}  // namespace

std::string SocketPath(const std::string& directory)
{
    return directory + "/bench.sock";
}

void ServeOnThreads(const std::string& directory, const std::function<void(int)>& handle)
{
    const int listener = SocketWith(bind, directory);
    Check(listen(listener, kBacklog), "listen");
    AnnounceReady();
    for (;;) {
        std::thread(handle, Check(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept")).detach();
    }
}

MessageSocket::MessageSocket(const std::string& directory) : MessageSocket(SocketWith(connect, directory)) {}

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
    uint32_t length = sizeof(length);
    for (size_t received = 0; received < length;) {
        const ssize_t bytes = read(descriptor_, buffer_.data() + received, buffer_.size() - received);
        if (bytes <= 0) {
            return {};
        }
        received += static_cast<size_t>(bytes);
        if (received >= sizeof(length)) {
            std::memcpy(&length, buffer_.data(), sizeof(length));
            buffer_.resize(std::max<size_t>(buffer_.size(), length));
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
