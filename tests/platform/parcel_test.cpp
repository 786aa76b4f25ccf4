// SPDX-License-Identifier: Apache-2.0
#include "varn/parcel.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "varn/message_parcel.h"

namespace VARN {
namespace {

using namespace std::string_literals;

class Point : public Parcelable {
public:
    bool Marshalling(Parcel& parcel) const override { return parcel.WriteInt32(x) && parcel.WriteInt32(y); }
    static Point* Unmarshalling(Parcel& parcel)
    {
        auto point = std::make_unique<Point>();
        return parcel.ReadInt32(point->x) && parcel.ReadInt32(point->y) ? point.release() : nullptr;
    }
    int32_t x = 0;
    int32_t y = 0;
};

TEST(ParcelTest, ValuesComeBackInTheirOrder)
{
    // Long enough to leave the parcel's own bytes, with a string whose zero bytes count.
    Parcel parcel;
    const std::string text(70000, '\0');
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(parcel.WriteString(text) && parcel.WriteInt64(std::numeric_limits<int64_t>::min()) &&
                    parcel.WriteString16(u"\xD83D\xDE00") && parcel.WriteBool(true));
    }
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(parcel.ReadString(), text);
        EXPECT_EQ(parcel.ReadInt64(), std::numeric_limits<int64_t>::min());
        EXPECT_EQ(parcel.ReadString16(), u"\xD83D\xDE00");
        EXPECT_TRUE(parcel.ReadBool());
    }
    EXPECT_EQ(parcel.GetReadableBytes(), 0U);
}

TEST(ParcelTest, FailedWriteLeavesTheParcelAndWhatAMarshallingWroteBefore)
{
    Parcel parcel;
    Point point;
    point.x = 7;
    ASSERT_TRUE(parcel.SetMaxCapacity(8));
    EXPECT_FALSE(parcel.WriteParcelable(&point));
    EXPECT_FALSE(parcel.WriteInt32(1) || parcel.WriteString("x") || parcel.WriteParcelable(nullptr));
    EXPECT_TRUE(parcel.ReadInt32() == 1 && parcel.ReadInt32() == 7 && parcel.GetReadableBytes() == 0);
}

TEST(ParcelTest, WriteThatEndsAtTheCapacitySucceeds)
{
    for (const size_t before : {size_t{0}, size_t{3000}}) {
        Parcel parcel;
        ASSERT_TRUE(parcel.WriteString(std::string(before, 'x')));
        const size_t size = parcel.GetDataSize();
        ASSERT_TRUE(parcel.SetMaxCapacity(size + 11));
        EXPECT_FALSE(parcel.WriteString("abcd") || parcel.SetMaxCapacity(size - 1));
        EXPECT_EQ(parcel.GetDataSize(), size);
        ASSERT_TRUE(parcel.SetMaxCapacity(size + 12));
        EXPECT_TRUE(parcel.WriteString("abcd"));
        EXPECT_FALSE(parcel.WriteBool(true));
    }
}

TEST(ParcelTest, PresenceOtherThanZeroReadsAValue)
{
    Parcel parcel;
    for (const int32_t word : {-5, 1, 2, 0, 1, 3}) {
        ASSERT_TRUE(parcel.WriteInt32(word));
    }
    const sptr<Point> point = parcel.ReadParcelable<Point>();
    ASSERT_NE(point, nullptr);
    EXPECT_EQ(point->StrongCount(), 1);
    EXPECT_TRUE(point->x == 1 && point->y == 2);
    EXPECT_EQ(parcel.ReadParcelable<Point>(), nullptr);
    // The value is announced but not whole: null, and what could be read is consumed. Then there is nothing.
    EXPECT_EQ(parcel.ReadParcelable<Point>(), nullptr);
    EXPECT_TRUE(parcel.GetReadableBytes() == 0 && !parcel.ReadBool() && parcel.ReadInt32() == 0);
    EXPECT_EQ(parcel.ReadParcelable<Point>(), nullptr);
}

TEST(ParcelTest, TokenAndOptionKeepTheirValues)
{
    MessageParcel parcel;
    EXPECT_TRUE(parcel.WriteInterfaceToken(u"a.b.C"));
    EXPECT_EQ(parcel.ReadInterfaceToken(), u"a.b.C");
    EXPECT_EQ(parcel.ReadInterfaceToken(), u"");
    EXPECT_TRUE(MessageOption().GetFlags() == MessageOption::TF_SYNC && MessageOption().GetWaitTime() == 8);
    EXPECT_TRUE(MessageOption(3, 2).GetFlags() == 3 && MessageOption(3, 2).GetWaitTime() == 2);
    EXPECT_EQ(MessageOption(0, 0).GetWaitTime(), 8);
}

}  // namespace
}  // namespace VARN
