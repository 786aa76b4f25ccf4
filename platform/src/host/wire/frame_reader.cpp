// SPDX-License-Identifier: Apache-2.0
#include "host/wire/frame_reader.h"

#include <algorithm>
#include <cstring>

#include "parcel_buffer.h"

namespace VARN::Host {

namespace {

// The least that is made ready for a body: the price of one system call is then spread over many bytes.
constexpr size_t FIRST_ROOM_SIZE = 16384;

}  // namespace

FrameReader::State FrameReader::CheckHeader(const uint8_t* bytes, size_t size) noexcept
{
    if (size < FRAME_HEADER_SIZE) {
        return State::PARTIAL;
    }
    std::memcpy(&header_, bytes, FRAME_HEADER_SIZE);
    headerSize_ = FRAME_HEADER_SIZE;
    const char* problem = header_.Check(expected_);
    if (problem != nullptr) {
        problem_ = problem;
        return State::INVALID;
    }
    return header_.length > ParcelBuffer::MaxCapacity(body_) ? State::TOO_LONG : State::COMPLETE;
}

FrameReader::State FrameReader::Check() noexcept
{
    if (headerSize_ < FRAME_HEADER_SIZE) {
        return State::PARTIAL;
    }
    return body_.GetDataSize() < header_.length ? State::PARTIAL : State::COMPLETE;
}

FrameReader::State FrameReader::Feed(const uint8_t* bytes, size_t size, size_t& taken) noexcept
{
    taken = 0;
    State state = Check();
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
    const size_t arrived = body_.GetDataSize();
    room = std::min(header_.length - arrived, std::max(arrived, FIRST_ROOM_SIZE));
    return ParcelBuffer::Space(body_, room);
}

FrameReader::State FrameReader::Commit(size_t size) noexcept
{
    if (headerSize_ == FRAME_HEADER_SIZE) {
        ParcelBuffer::Commit(body_, size);
        return Check();
    }
    headerSize_ += size;
    if (headerSize_ < FRAME_HEADER_SIZE) {
        return State::PARTIAL;
    }
    const FrameHeader header = header_;
    const State state = CheckHeader(reinterpret_cast<const uint8_t*>(&header), sizeof(header));
    return state == State::COMPLETE ? Check() : state;
}

}  // namespace VARN::Host
