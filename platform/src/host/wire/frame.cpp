// SPDX-License-Identifier: Apache-2.0
#include "host/wire/frame.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "parcel_buffer.h"

namespace VARN::Host {

FrameReader::State FrameReader::CheckHeader(const uint8_t* bytes, size_t size) noexcept
{
    headerSize_ = std::min(size, FRAME_HEADER_SIZE);
    std::memcpy(&header_, bytes, headerSize_);
    return Check(size - headerSize_);
}

FrameReader::State FrameReader::Check(size_t bodySize) noexcept
{
    if (headerSize_ < FRAME_HEADER_SIZE) {
        return State::PARTIAL;
    }
    problem_ = header_.Check(expected_);
    if (problem_ != nullptr) {
        return State::INVALID;
    }
    if (header_.length > ParcelBuffer::MaxCapacity(body_)) {
        return State::TOO_LONG;
    }
    return bodySize < header_.length ? State::PARTIAL : State::COMPLETE;
}

FrameReader::State FrameReader::Feed(const uint8_t* bytes, size_t size, size_t& taken) noexcept
{
    taken = 0;
    State state = Check(body_.GetDataSize());
    while (state == State::PARTIAL && taken < size) {
        size_t room = 0;
        uint8_t* space = Space(room);
        if (space == nullptr) {
            return State::NO_MEMORY;
        }
        const size_t part = std::min(room, size - taken);
        std::memcpy(space, bytes + taken, part);
        taken += part;
        state = Commit(part);
    }
    return state;
}

uint8_t* FrameReader::Space(size_t& room) noexcept
{
    if (headerSize_ < FRAME_HEADER_SIZE) {
        room = FRAME_HEADER_SIZE - headerSize_;
        return reinterpret_cast<uint8_t*>(&header_) + headerSize_;
    }
    // The least that is made ready for a body: the price of one system call is then spread over many bytes.
    constexpr size_t FIRST_ROOM_SIZE = 16384;
    const size_t arrived = body_.GetDataSize();
    room = std::min(header_.length - arrived, std::max(arrived, FIRST_ROOM_SIZE));
    return ParcelBuffer::Space(body_, room);
}

FrameReader::State FrameReader::Commit(size_t size) noexcept
{
    if (headerSize_ < FRAME_HEADER_SIZE) {
        headerSize_ += size;
    } else {
        ParcelBuffer::Commit(body_, size);
    }
    return Check(body_.GetDataSize());
}

int SendFrame(int fd, const FrameHeader& header, const MessageParcel& body, size_t& sent) noexcept
{
    const size_t headerSent = std::min(sent, sizeof(header));
    const size_t bodySent = sent - headerSent;
    // sendmsg takes what it only reads as non-const.
    std::array<iovec, 2> pieces{
        {{reinterpret_cast<uint8_t*>(const_cast<FrameHeader*>(&header)) + headerSent, sizeof(header) - headerSent},
         {const_cast<uint8_t*>(ParcelBuffer::Data(body)) + bodySent, body.GetDataSize() - bodySent}}};
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    const ssize_t done = TEMP_FAILURE_RETRY(::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT));
    if (done < 0) {
        return errno;
    }
    sent += static_cast<size_t>(done);
    return 0;
}

}  // namespace VARN::Host
