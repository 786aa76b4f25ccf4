// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "host/base/unique_fd.h"

namespace VARN::Host {

// The socket option that lets descriptors in.
#if defined(SO_PASSRIGHTS)
constexpr int PASS_RIGHTS = SO_PASSRIGHTS;
#else
// The kernel may know it although the headers do not. On the few architectures with numbers of their own it is unknown.
constexpr int PASS_RIGHTS = 83;
#endif

// A Unix stream socket that does not block, that a program started by this one does not inherit, and that takes no
// descriptors if the kernel can help it: the receiver has to close it, and closing can be made to last for ever.
// Holds nothing, with the reason in errno, when the system refuses.
inline UniqueFd MakeUnixSocket() noexcept
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

// Bytes that have come in and were not received.
inline int CountUnread(int fd) noexcept
{
    int bytes = 0;
    ::ioctl(fd, SIOCINQ, &bytes);
    return bytes;
}

}  // namespace VARN::Host
