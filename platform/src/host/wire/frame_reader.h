// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/wire/frame.h"
#include "varn/message_parcel.h"

namespace VARN::Host {

// Puts one frame together from the pieces in which it arrives. Memory grows with the bytes that have arrived, never
// with the length that was announced, so that a peer cannot make this process allocate more than it sends.
//
// Thread safety: none; it belongs to the owner of the connection.
class FrameReader {
public:
    enum class State {
        PARTIAL,   // more is needed
        COMPLETE,  // the frame is whole
        INVALID,   // not what is expected; `GetProblem` says why
        TOO_LONG,  // the body would be longer than allowed
        NO_MEMORY,
    };

    // The body goes into `body`, which is empty, outlives the reader, and bounds it by its own capacity.
    FrameReader(FrameKind expected, MessageParcel& body) noexcept : expected_(expected), body_(body) {}

    // What the bytes of a header, `size` of them so far, allow to say. Complete here means that the header is whole and
    // acceptable; a wrong one is recognised as soon as it is whole, before a byte of the body is stored.
    State CheckHeader(const uint8_t* bytes, size_t size) noexcept;

    // Takes the next bytes of the frame from `bytes`, and none beyond its end; `taken` says how many.
    State Feed(const uint8_t* bytes, size_t size, size_t& taken) noexcept;

    // Where the next bytes may be received directly, `room` of them, none beyond the end of the frame. Null when memory
    // runs out. For a frame that is partial; `Commit` tells how many came.
    uint8_t* Space(size_t& room) noexcept;
    State Commit(size_t size) noexcept;

    const FrameHeader& GetHeader() const noexcept { return header_; }
    const char* GetProblem() const noexcept { return problem_; }

private:
    State Check() noexcept;

    const FrameKind expected_;
    MessageParcel& body_;
    size_t headerSize_ = 0;  // bytes of the header that have arrived
    FrameHeader header_;
    const char* problem_ = "";
};

}  // namespace VARN::Host
