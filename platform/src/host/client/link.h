// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host/base/deadline.h"
#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "host/wire/frame.h"
#include "varn/fork_handler.h"

namespace VARN::Host {

// Guards all that the client side of the process shares: which services it knows, which connections there are and which
// are idle. One lock for all of it, held for a few instructions at a time, so that a fork can wait for it and the child
// finds it free. A Link takes it when it is made, connected and destroyed.
extern Mutex clientMutex;

// A client's connection to a service: one request and its reply at a time.
//
// Only the process that made it ever uses it. A fork would leave the child with a copy: two processes that write on one
// connection would take each other's replies, and the service would not see the parent go. So the child closes all
// copies before `fork` returns, and its links hold nothing any more.
//
// An operation returns 0 or an errno: ETIMEDOUT past the deadline, EPROTO for a reply that breaks the protocol,
// EMSGSIZE for one that is too long, ENOMEM, or the system's own. What more there is to say about it is in `problem`.
// After any of them the connection must not be used again.
//
// Thread safety: none; it belongs to one thread at a time.
class Link {
public:
    // User and group of this thread.
    using Identity = std::pair<uid_t, gid_t>;
    static Identity CurrentIdentity() { return {::geteuid(), ::getegid()}; }

    Link();
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Connects to the socket `path` in `directory`. Does not wait: EAGAIN when too many wait to be accepted.
    int Connect(const std::string& directory, const std::string& path, std::string& problem);

    // Whether it can carry a request: the peer has neither closed it nor said anything unasked.
    bool IsAlive() const;

    // Sends a request; `sent` bytes of it have left.
    int Send(const FrameHeader& header, const MessageParcel& data, const Deadline& deadline, size_t& sent);

    int Receive(uint32_t code, const Deadline& deadline, MessageParcel& reply, int32_t& status, std::string& problem);

    // Whom the service takes this process for: that was settled when the connection was made.
    const Identity& GetIdentity() const noexcept { return identity_; }

    bool isChecked = false;  // found alive, and not used since

private:
    int ReceiveSome(void* to, size_t room, const Deadline& deadline, size_t& got, std::string& problem);

    static std::vector<Link*>& All();  // guarded by clientMutex
    static ForkHandler forkHandler_;

    UniqueFd fd_;
    Identity identity_ = {};
    Deadline::Clock::duration waitTime_{0};  // what SO_RCVTIMEO is set to
};

}  // namespace VARN::Host
