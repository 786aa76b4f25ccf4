// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "varn/parcel.h"

// The bytes of this platform's parcels; another platform may lay its own out differently.
namespace VARN {
namespace {

using namespace std::string_literals;

// The words of a parcel from its cursor on, which is left at the end.
std::vector<int32_t> Words(Parcel& parcel)
{
    std::vector<int32_t> words;
    int32_t word = 0;
    while (parcel.ReadInt32(word)) {
        words.push_back(word);
    }
    EXPECT_EQ(parcel.GetReadableBytes(), 0U);
    return words;
}

void WriteWords(Parcel& parcel, const std::vector<int32_t>& words)
{
    for (const int32_t word : words) {
        ASSERT_TRUE(parcel.WriteInt32(word));
    }
}

struct Point : Parcelable {
    bool Marshalling(Parcel& parcel) const override { return parcel.WriteInt32(7) && parcel.WriteInt32(-8); }
};

TEST(ParcelLayoutTest, EveryTypeHasItsLayout)
{
    const Point point;
    const struct {
        const char* name;
        std::function<bool(Parcel&)> write;
        std::vector<int32_t> words;
    } cases[] = {
        {"bool", [](Parcel& p) { return p.WriteBool(true) && p.WriteBool(false); }, {1, 0}},
        {"int32", [](Parcel& p) { return p.WriteInt32(-2); }, {-2}},
        {"int64", [](Parcel& p) { return p.WriteInt64(-0x100000002LL); }, {-2, -2}},
        {"empty string", [](Parcel& p) { return p.WriteString(""); }, {0, 0}},
        {"3 bytes", [](Parcel& p) { return p.WriteString("abc"); }, {3, 0x00636261}},
        {"4 bytes", [](Parcel& p) { return p.WriteString("abcd"); }, {4, 0x64636261, 0}},
        {"zero byte inside", [](Parcel& p) { return p.WriteString("a\0c"s); }, {3, 0x00630061}},
        {"empty string16", [](Parcel& p) { return p.WriteString16(u""); }, {0, 0}},
        {"1 unit", [](Parcel& p) { return p.WriteString16(u"a"); }, {1, 0x00000061}},
        {"2 units", [](Parcel& p) { return p.WriteString16(u"ab"); }, {2, 0x00620061, 0}},
        {"present", [&](Parcel& p) { return p.WriteParcelable(&point); }, {1, 7, -8}},
        {"absent", [](Parcel& p) { return p.WriteParcelable(nullptr); }, {0}},
    };
    for (const auto& [name, write, words] : cases) {
        SCOPED_TRACE(name);
        Parcel parcel;
        ASSERT_TRUE(write(parcel));
        EXPECT_EQ(parcel.GetDataSize(), words.size() * 4);
        EXPECT_EQ(Words(parcel), words);
    }
}

TEST(ParcelLayoutTest, HostileBytesAreNotRead)
{
    constexpr int32_t MOST = std::numeric_limits<int32_t>::max();
    constexpr int32_t LEAST = std::numeric_limits<int32_t>::min();
    const auto string = [](Parcel& p) {
        std::string value = "kept";
        return p.ReadString(value) || value != "kept";
    };
    const auto string16 = [](Parcel& p) {
        std::u16string value = u"kept";
        return p.ReadString16(value) || value != u"kept";
    };
    const auto number = [](Parcel& p) {
        int64_t value = 5;
        return p.ReadInt64(value) || value != 5;
    };
    const struct {
        const char* name;
        std::function<bool(Parcel&)> read;
        std::vector<int32_t> words;
    } cases[] = {
        {"nothing there", string, {}},
        {"half a number", number, {1}},
        {"length alone", string, {0}},
        {"negative length", string, {-1, 0}},
        {"least length", string, {LEAST, 0}},
        {"greatest length", string, {MOST, 0, 0}},
        {"one byte too long", string, {4, 0x64636261}},
        {"no terminator", string, {3, 0x64636261}},
        {"no terminator where padding follows", string, {1, 0x00006261}},
        {"length alone, 16", string16, {0}},
        {"negative length, 16", string16, {-1, 0, 0}},
        {"greatest length, 16", string16, {MOST, 0, 0}},
        {"half of greatest, 16", string16, {0x40000000, 0, 0}},
        {"one unit too long, 16", string16, {2, 0x00620061}},
        {"no terminator, 16", string16, {1, 0x00620061}},
    };
    for (const auto& [name, read, words] : cases) {
        SCOPED_TRACE(name);
        Parcel parcel;
        WriteWords(parcel, words);
        EXPECT_FALSE(read(parcel));
        EXPECT_EQ(parcel.GetReadableBytes(), words.size() * 4);
        EXPECT_EQ(Words(parcel), words);
    }
}

TEST(ParcelLayoutTest, WriteStopsAtTheCapacityAndLeavesTheParcel)
{
    const struct {
        const char* name;
        std::function<bool(Parcel&)> write;
        size_t bytes;
    } cases[] = {
        {"bool", [](Parcel& p) { return p.WriteBool(true); }, 4},
        {"int32", [](Parcel& p) { return p.WriteInt32(1); }, 4},
        {"int64", [](Parcel& p) { return p.WriteInt64(1); }, 8},
        {"string", [](Parcel& p) { return p.WriteString("abcd"); }, 12},
        {"long string", [](Parcel& p) { return p.WriteString(std::string(1000, 'x')); }, 1008},
        {"string16", [](Parcel& p) { return p.WriteString16(u"ab"); }, 12},
    };
    for (const auto& [name, write, bytes] : cases) {
        SCOPED_TRACE(name);
        for (const size_t before : {size_t{0}, size_t{508}, size_t{2000}}) {
            Parcel parcel;
            WriteWords(parcel, std::vector<int32_t>(before / 4, 9));
            ASSERT_TRUE(parcel.SetMaxCapacity(before + bytes - 1));
            EXPECT_FALSE(write(parcel));
            EXPECT_EQ(parcel.GetDataSize(), before);
            ASSERT_TRUE(parcel.SetMaxCapacity(before + bytes));
            EXPECT_TRUE(write(parcel));
            EXPECT_EQ(parcel.GetDataSize(), before + bytes);
            EXPECT_FALSE(parcel.WriteInt32(1));
            EXPECT_FALSE(parcel.SetMaxCapacity(before + bytes - 1));
        }
    }
}

}  // namespace
}  // namespace VARN
