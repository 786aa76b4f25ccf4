// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "varn/message_parcel.h"

// What travels on a connection, in both directions:
//
//   frame  := header body
//   header := magic    uint32   the bytes "VARN"
//             version  uint16   1
//             kind     uint16   1 request, 2 reply
//             code     uint32   the request's code; a reply repeats it
//             status   int32    0 in a request; in a reply what the service returned, or an IpcCode
//             length   uint32   bytes of the body
//   body   := the bytes of a parcel
//
// Numbers are in the host's byte order: both ends are on one machine. A client sends one request and waits for its
// reply before it sends the next; a server also takes requests that were sent ahead and answers them in order. A side
// that receives anything else drops the connection.

namespace VARN::Host {

enum class FrameKind : uint16_t { REQUEST = 1, REPLY = 2 };

struct FrameHeader {
    static constexpr uint32_t MAGIC = 0x4E524156;  // "VARN" in the order of a little-endian machine
    static constexpr uint16_t VERSION = 1;

    uint32_t magic = MAGIC;
    uint16_t version = VERSION;
    FrameKind kind = FrameKind::REQUEST;
    uint32_t code = 0;
    int32_t status = 0;
    uint32_t length = 0;

    // Null for a header that may stand in front of a frame of this kind, else what is wrong with it.
    const char* Check(FrameKind expected) const noexcept
    {
        if (magic != MAGIC) {
            return "the magic is wrong";
        }
        if (version != VERSION) {
            return "the version is unknown";
        }
        if (kind != expected) {
            return expected == FrameKind::REQUEST ? "it is not a request" : "it is not a reply";
        }
        return expected == FrameKind::REQUEST && status != 0 ? "a request carries a status" : nullptr;
    }
};

constexpr size_t FRAME_HEADER_SIZE = 20;
static_assert(sizeof(FrameHeader) == FRAME_HEADER_SIZE && std::is_trivially_copyable_v<FrameHeader>,
              "the header is copied to and from the wire as it stands");

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

    // What the first `size` bytes of a frame say about it, before one is stored. A header that is wrong is recognised
    // as soon as it is whole.
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
    State Check(size_t bodySize) noexcept;

    const FrameKind expected_;
    MessageParcel& body_;
    size_t headerSize_ = 0;  // bytes of the header that have arrived
    FrameHeader header_;
    const char* problem_ = nullptr;
};

// Sends as much of a frame as the socket takes at once, of which `sent` bytes have left before, and moves `sent` on.
// Returns 0, EAGAIN from a full socket, or another errno.
int SendFrame(int fd, const FrameHeader& header, const MessageParcel& body, size_t& sent) noexcept;

}  // namespace VARN::Host
