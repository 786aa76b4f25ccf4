// SPDX-License-Identifier: Apache-2.0
#include "host/client/call.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>

#include "host/wire/frame.h"
#include "parcel_buffer.h"

namespace VARN::Host {

namespace {

// What the first receive of a reply takes in one system call; most replies are shorter.
constexpr size_t FIRST_PIECE_SIZE = 16384;

// Waits for the socket. 0, ETIMEDOUT or another errno.
int Wait(int fd, short events, const Deadline& deadline)
{
    pollfd entry = {fd, events, 0};
    for (;;) {
        const int left = deadline.LeftMilliseconds();
        const int ready = ::poll(&entry, 1, left);
        if (ready > 0) {
            return 0;
        }
        if (ready == 0) {
            if (left == 0) {
                return ETIMEDOUT;
            }
        } else if (errno != EINTR) {
            return errno;
        }
    }
}

}  // namespace

int Call::Send(FrameHeader& header, const MessageParcel& data)
{
    std::array<iovec, 2> pieces{
        {{&header, sizeof(header)}, {const_cast<uint8_t*>(ParcelBuffer::Data(data)), data.GetDataSize()}}};
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    size_t left = pieces[0].iov_len + pieces[1].iov_len;
    for (;;) {
        const ssize_t sent = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EINTR && errno != EAGAIN) {
            return errno;
        }
        const bool full = sent < 0 && errno == EAGAIN;
        size_t done = sent < 0 ? 0 : static_cast<size_t>(sent);
        hasSent_ = hasSent_ || done != 0;
        left -= done;
        if (left == 0) {
            return 0;
        }
        for (iovec& piece : pieces) {
            const size_t part = std::min(done, piece.iov_len);
            piece.iov_base = static_cast<uint8_t*>(piece.iov_base) + part;
            piece.iov_len -= part;
            done -= part;
        }
        const int error = full ? Wait(fd_, POLLOUT, deadline_) : (deadline_.IsOver() ? ETIMEDOUT : 0);
        if (error != 0) {
            return error;
        }
    }
}

// Receives what is there, waiting for the first byte. End of file is an error here.
int Call::ReceiveSome(void* to, size_t room, size_t& got)
{
    // A receive that blocks saves a poll, but may take the whole of the wait time once more: so only at the beginning.
    int flags = mayBlock_ && deadline_.HasJustBegun() ? 0 : MSG_DONTWAIT;
    for (;;) {
        const ssize_t received = ::recv(fd_, to, room, flags);
        if (received > 0) {
            got = static_cast<size_t>(received);
            return 0;
        }
        if (received == 0) {
            return Fail(ECONNRESET, "the service closed the connection");
        }
        if (errno == EAGAIN || errno == EINTR) {
            const int error = Wait(fd_, POLLIN, deadline_);
            if (error != 0) {
                return error;
            }
            flags = MSG_DONTWAIT;
        } else {
            return errno;
        }
    }
}

int Call::Receive(uint32_t code, MessageParcel& reply, int32_t& status)
{
    using State = FrameReader::State;
    ParcelBuffer::Clear(reply, 0);
    FrameReader reader(FrameKind::REPLY, reply);
    uint8_t piece[FIRST_PIECE_SIZE];
    size_t got = 0;
    size_t taken = 0;
    int error = ReceiveSome(piece, sizeof(piece), got);
    State state = reader.Feed(piece, got, taken);
    while (error == 0 && state == State::PARTIAL) {
        size_t room = 0;
        uint8_t* space = reader.Space(room);
        if (space == nullptr) {
            state = State::NO_MEMORY;
            break;
        }
        error = deadline_.IsOver() ? ETIMEDOUT : ReceiveSome(space, room, got);
        if (error == 0) {
            state = reader.Commit(got);
            taken = got;
        }
    }
    if (error != 0) {
        return error;
    }
    switch (state) {
        case State::INVALID:
            return Fail(EPROTO, reader.GetProblem());
        case State::TOO_LONG:
            return Fail(EMSGSIZE, "the reply is longer than a parcel may be");
        case State::NO_MEMORY:
            return Fail(ENOMEM, "no memory for the reply");
        default:
            break;
    }
    if (reader.GetHeader().code != code) {
        return Fail(EPROTO, "it answers another request");
    }
    if (taken < got) {
        return Fail(EPROTO, "there are bytes behind it");
    }
    status = reader.GetHeader().status;
    return 0;
}

}  // namespace VARN::Host
