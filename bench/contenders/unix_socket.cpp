// SPDX-License-Identifier: Apache-2.0
#include "bench/contenders/unix_socket.h"

#include <sys/un.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include "bench/harness.h"

namespace bench {
namespace {

int Check(int result, const char* step)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
    return result;
}

}  // namespace

int SocketWith(decltype(connect)* attach, const std::string& path)
{
    sockaddr_un address{AF_UNIX, {}};
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    path.copy(address.sun_path, path.size());
    const int descriptor = Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    Check(attach(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), path.c_str());
    return descriptor;
}

void ServeOnThreads(const std::string& path, const std::function<void(int)>& handle)
{
    const int listener = SocketWith(bind, path);
    Check(listen(listener, SOMAXCONN), "listen");
    AnnounceReady();
    for (;;) {
        std::thread(handle, Check(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept")).detach();
    }
}

}  // namespace bench
