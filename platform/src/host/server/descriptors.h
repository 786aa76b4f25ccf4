// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace VARN::Host {

// A peer may send open descriptors along with its bytes. They are of no use here, and the last close of one may block
// whoever does it for as long as the peer likes: a TCP socket with unsent data waits for its linger time. So the kernel
// is told to refuse them when they are sent.

// Of a listening socket: those who connect from now on cannot send any. Older kernels than 6.16 do not know it.
void RefuseDescriptors(int socket) noexcept;

// Whether descriptors may wait in what the peer of an accepted connection has sent or will send.
bool MayCarryDescriptors(int socket) noexcept;

}  // namespace VARN::Host
