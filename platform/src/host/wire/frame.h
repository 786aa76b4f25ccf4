// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

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

}  // namespace VARN::Host
