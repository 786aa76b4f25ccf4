// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/parcels.h"

// The bytes of this platform's parcels; another platform may lay its own out differently.
namespace VARN {
namespace {

using namespace std::string_literals;

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
        EXPECT_EQ(TakeWords(parcel), words);
    }
}

// From none of these words a value can be read: its target and the cursor stay.
template <class T, class Read>
void ExpectUnread(const T& kept, Read read, const std::vector<std::vector<int32_t>>& cases)
{
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        Parcel parcel;
        Put(parcel, cases[i]);
        T value = kept;
        EXPECT_FALSE(read(parcel, value));
        EXPECT_EQ(value, kept);
        EXPECT_EQ(TakeWords(parcel), cases[i]);
    }
}

TEST(ParcelLayoutTest, HostileBytesAreNotRead)
{
    ExpectUnread(int64_t{5}, [](Parcel& p, int64_t& value) { return p.ReadInt64(value); }, {{}, {1}});
    ExpectUnread("kept"s, [](Parcel& p, std::string& value) { return p.ReadString(value); },
                 {
                     {},                 // nothing there
                     {0},                // length alone
                     {-1, 0},            // negative length
                     {INT32_MIN, 0},     // least length
                     {INT32_MAX, 0, 0},  // greatest length
                     {4, 0x64636261},    // one byte too long
                     {3, 0x64636261},    // no terminator
                     {1, 0x00006261},    // no terminator where padding follows
                 });
    ExpectUnread(u"kept"s, [](Parcel& p, std::u16string& value) { return p.ReadString16(value); },
                 {
                     {0},                 // length alone
                     {-1, 0, 0},          // negative length
                     {INT32_MAX, 0, 0},   // greatest length
                     {0x40000000, 0, 0},  // half of it
                     {2, 0x00620061},     // one unit too long
                     {1, 0x00620061},     // no terminator
                 });
}

}  // namespace
}  // namespace VARN
