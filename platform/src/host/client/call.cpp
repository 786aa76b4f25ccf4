// SPDX-License-Identifier: Apache-2.0
#include "host/client/call.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "parcel_buffer.h"

namespace VARN::Host {

namespace {

// What the first receive of a reply takes in one system call; most replies are shorter.
constexpr size_t FIRST_PIECE_SIZE = 16384;

// Room for what is still to come of a reply: memory grows with what was received, not with what was announced, so that
// a hostile service cannot make the client allocate more than it sends.
constexpr size_t FIRST_ROOM_SIZE = 65536;

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
    // A receive that blocks saves a poll. SO_RCVTIMEO bounds it, by the whole of the wait time: so only at the
    // beginning.
    int flags = !neverBlock_ && deadline_.HasJustBegun() ? 0 : MSG_DONTWAIT;
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

int Call::ReceiveHeader(uint8_t* piece, size_t room, size_t& got)
{
    int error = ReceiveSome(piece, room, got);
    while (error == 0 && got < FRAME_HEADER_SIZE) {
        size_t more = 0;
        error = deadline_.IsOver() ? ETIMEDOUT : ReceiveSome(piece + got, room - got, more);
        got += more;
    }
    return error;
}

int Call::ReceiveRest(MessageParcel& reply, size_t length)
{
    while (reply.GetDataSize() < length) {
        const size_t room = std::min(length - reply.GetDataSize(), std::max(reply.GetDataSize(), FIRST_ROOM_SIZE));
        uint8_t* space = ParcelBuffer::Space(reply, room);
        if (space == nullptr) {
            return Fail(ENOMEM, "no memory for the reply");
        }
        size_t got = 0;
        const int error = deadline_.IsOver() ? ETIMEDOUT : ReceiveSome(space, room, got);
        if (error != 0) {
            return error;
        }
        ParcelBuffer::Commit(reply, got);
    }
    return 0;
}

int Call::Receive(uint32_t code, MessageParcel& reply, int32_t& status)
{
    alignas(FrameHeader) uint8_t piece[FIRST_PIECE_SIZE];
    size_t got = 0;
    const int error = ReceiveHeader(piece, sizeof(piece), got);
    if (error != 0) {
        return error;
    }
    FrameHeader header;
    std::memcpy(&header, piece, sizeof(header));
    const char* wrong = header.Check(FrameKind::REPLY);
    if (wrong == nullptr && header.code != code) {
        wrong = "it answers another request";
    }
    got -= sizeof(header);
    if (wrong == nullptr && got > header.length) {
        wrong = "there are bytes behind it";
    }
    if (wrong != nullptr) {
        return Fail(EPROTO, wrong);
    }
    if (header.length > ParcelBuffer::MaxCapacity(reply)) {
        return Fail(EMSGSIZE, "the reply is longer than a parcel may be");
    }
    ParcelBuffer::Clear(reply, 0);
    uint8_t* space = ParcelBuffer::Space(reply, got);
    if (space == nullptr) {
        return Fail(ENOMEM, "no memory for the reply");
    }
    std::memcpy(space, piece + sizeof(header), got);
    ParcelBuffer::Commit(reply, got);
    status = header.status;
    return ReceiveRest(reply, header.length);
}

}  // namespace VARN::Host
