// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "host/base/unique_fd.h"

namespace VARN::Host {

// A peer may send open descriptors along with its bytes. They are of no use here, and the last close of one may block
// the closing thread for as long as the peer likes: a TCP socket with unsent data waits for its linger time. So the
// kernel is told to refuse them when they are sent. Kernels before 6.16 do not know that, and what was queued at a
// socket before the service got it handed over may carry some. Then they are never taken in: a connection that carries
// one is closed as it is, and closing, which throws away what was not received, is left to a thread that does nothing
// else.

// Owns an accepted connection, or a socket that listens.
class PeerSocket {
public:
    PeerSocket() noexcept = default;
    explicit PeerSocket(UniqueFd socket) noexcept;
    PeerSocket(PeerSocket&& other) noexcept = default;
    PeerSocket& operator=(PeerSocket other) noexcept;
    PeerSocket(const PeerSocket&) = delete;
    // Closes it, here or elsewhere; the peer sees the end at once.
    ~PeerSocket();

    // Of a listening socket: those who connect from now on cannot send descriptors.
    void RefuseDescriptors() noexcept;

    // As recv(2) without waiting. EPERM: there are descriptors among what comes next, and the socket is to be closed.
    ssize_t Receive(void* to, size_t room) const noexcept;

    int Get() const noexcept { return socket_.Get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(socket_); }
    [[nodiscard]] int Release() noexcept { return socket_.Release(); }

private:
    void AskKernel() noexcept;

    UniqueFd socket_;
    bool mayCarryDescriptors_ = true;
};

}  // namespace VARN::Host
