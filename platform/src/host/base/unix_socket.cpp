// SPDX-License-Identifier: Apache-2.0
#include "host/base/unix_socket.h"

#include <sys/socket.h>

namespace VARN::Host {

UniqueFd MakeUnixSocket() noexcept
{
    return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

}  // namespace VARN::Host
