// SPDX-License-Identifier: Apache-2.0
#pragma once

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
UniqueFd MakeUnixSocket() noexcept;

// Bytes that have come in and were not received.
int CountUnread(int fd) noexcept;

}  // namespace VARN::Host
