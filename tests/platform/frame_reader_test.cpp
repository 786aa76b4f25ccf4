// SPDX-License-Identifier: Apache-2.0
#include "host/wire/frame.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "parcel_buffer.h"

namespace VARN::Host {
namespace {

TEST(FrameReaderTest, MemoryFollowsWhatHasArrivedAndNotWhatIsAnnounced)
{
    MessageParcel body;
    FrameReader reader(FrameKind::REQUEST, body);
    FrameHeader header;
    header.length = Parcel::kDefaultMaxCapacity;
    size_t taken = 0;
    EXPECT_EQ(FrameReader::State::PARTIAL,
              reader.Feed(reinterpret_cast<const uint8_t*>(&header), sizeof(header), taken));
    for (size_t arrived = 0; arrived < 4U << 20U; arrived = body.GetDataSize()) {
        size_t room = 0;
        ASSERT_NE(nullptr, reader.Space(room));
        EXPECT_LE(ParcelBuffer::Capacity(body), 4 * std::max<size_t>(arrived, 16384));
        ASSERT_EQ(FrameReader::State::PARTIAL, reader.Commit(room));
    }
}

}  // namespace
}  // namespace VARN::Host
