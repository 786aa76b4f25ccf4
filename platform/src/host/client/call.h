// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

#include "host/base/deadline.h"
#include "host/base/error_text.h"
#include "host/wire/frame.h"
#include "varn/message_parcel.h"

namespace VARN::Host {

// One request and its reply on one connection. `Send` and `Receive` return 0 or an errno: ETIMEDOUT past the deadline,
// EPROTO for a reply that breaks the protocol, EMSGSIZE for one that is too long, ENOMEM, or the socket's own. After
// any of them the connection must not be used again.
//
// Thread safety: none; it lives on the stack of the thread that asks.
class Call {
public:
    // `mayBlock`: the socket bounds by itself, by the whole of the call's time, how long a receive takes.
    Call(int fd, const Deadline& deadline, bool mayBlock) : fd_(fd), deadline_(deadline), mayBlock_(mayBlock) {}

    int Send(FrameHeader& header, const MessageParcel& data);
    int Receive(uint32_t code, MessageParcel& reply, int32_t& status);

    // Whether `Send` returned `error` because the service had closed the connection before it could get a byte.
    bool WasClosedBefore(int error) const noexcept { return !hasSent_ && (error == EPIPE || error == ECONNRESET); }

    // Why a step returned `error`.
    std::string GetReason(int error) const { return reason_ != nullptr ? reason_ : ErrorText(error); }

private:
    int ReceiveSome(void* to, size_t room, size_t& got);
    int Fail(int error, const char* what)
    {
        reason_ = what;
        return error;
    }

    const int fd_;
    const Deadline deadline_;
    const bool mayBlock_;
    bool hasSent_ = false;
    const char* reason_ = nullptr;
};

}  // namespace VARN::Host
