// SPDX-License-Identifier: Apache-2.0
#include "host/server/descriptors.h"

#include <sys/socket.h>

namespace VARN::Host {

namespace {

#if defined(SO_PASSRIGHTS)
constexpr int PASS_RIGHTS = SO_PASSRIGHTS;
#else
// The kernel may know it although the headers do not. On the few architectures with numbers of their own it is unknown.
constexpr int PASS_RIGHTS = 83;
#endif

}  // namespace

void RefuseDescriptors(int socket) noexcept
{
    const int off = 0;
    ::setsockopt(socket, SOL_SOCKET, PASS_RIGHTS, &off, sizeof(off));
}

bool MayCarryDescriptors(int socket) noexcept
{
    int isOn = 1;
    socklen_t size = sizeof(isOn);
    return ::getsockopt(socket, SOL_SOCKET, PASS_RIGHTS, &isOn, &size) != 0 || isOn != 0;
}

}  // namespace VARN::Host
