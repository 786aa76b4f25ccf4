// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"

namespace VARN::Host {

// Guards all that the client side of the process shares: which services it knows, which connections there are and which
// are idle. One lock for all of it, held for a few instructions at a time, so that a fork can wait for it and the child
// finds it free. The end of a LinkFd takes it.
extern Mutex clientMutex;

// A client's connected socket that only the process that made it ever uses. A fork would leave the child with a copy:
// two processes that write on one connection would take each other's replies, and the service would not see the parent
// go. So the child closes all copies before `fork` returns, and its `LinkFd`s know that they hold nothing any more.
class LinkFd {
public:
    LinkFd() noexcept = default;
    // A Unix stream socket that does not block; holds nothing, with the reason in errno, when the system refuses.
    static LinkFd MakeSocket();
    LinkFd(LinkFd&& other) noexcept = default;
    // What it held goes with `other`.
    LinkFd& operator=(LinkFd&& other) noexcept;
    ~LinkFd();

    int Get() const noexcept { return fd_.Get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(fd_); }
    // Whether it was made by this process, and not by the one that this was forked from.
    bool IsOurs() const noexcept;

private:
    UniqueFd fd_;
    uint32_t generation_ = 0;
};

}  // namespace VARN::Host
