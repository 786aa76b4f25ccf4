// SPDX-License-Identifier: Apache-2.0
#include "host/base/unix_socket.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace VARN::Host {

UniqueFd MakeUnixSocket() noexcept
{
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        return fd;
    }
    const int off = 0;
    ::setsockopt(fd.Get(), SOL_SOCKET, PASS_RIGHTS, &off, sizeof(off));
    // In a program that has closed its standard error, whatever writes there must not write into a connection.
    if (fd.Get() <= STDERR_FILENO) {
        return UniqueFd(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    return fd;
}

int CountUnread(int fd) noexcept
{
    int bytes = 0;
    ::ioctl(fd, SIOCINQ, &bytes);
    return bytes;
}

}  // namespace VARN::Host
