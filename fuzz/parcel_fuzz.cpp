// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "parcel_buffer.h"

namespace {

// A read that fails leaves the cursor and its target; one that succeeds gives no more than was there.
template <class T, class Read>
void Check(const VARN::Parcel& parcel, T value, Read read)
{
    const T before = value;
    const size_t readable = parcel.GetReadableBytes();
    if (read(value)) {
        fuzz::Require(parcel.GetReadableBytes() < readable);
    } else {
        fuzz::Require(parcel.GetReadableBytes() == readable && value == before);
    }
}

}  // namespace

// The first byte of the input says how many reads follow, each chosen by one byte; the rest is the parcel.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    const size_t reads = input.TakeByte();
    fuzz::Input choices = input;
    input.Skip(reads);
    // Lent, since what arrives need not be a multiple of a word.
    std::vector<uint8_t> contents(input.GetBytes(), input.GetBytes() + input.GetSize());
    VARN::Parcel parcel;
    VARN::ParcelBuffer::Lend(parcel, contents.data(), contents.size());
    for (size_t index = 0; index < reads; ++index) {
        switch (choices.TakeByte() % 5) {
            case 0:
                Check(parcel, true, [&parcel](bool& value) { return parcel.ReadBool(value); });
                break;
            case 1:
                Check(parcel, int32_t{-7}, [&parcel](int32_t& value) { return parcel.ReadInt32(value); });
                break;
            case 2:
                Check(parcel, int64_t{-7}, [&parcel](int64_t& value) { return parcel.ReadInt64(value); });
                break;
            case 3:
                Check(parcel, std::string("kept"), [&parcel](std::string& value) {
                    return parcel.ReadString(value) && value.size() < parcel.GetDataSize();
                });
                break;
            default:
                Check(parcel, std::u16string(u"kept"), [&parcel](std::u16string& value) {
                    return parcel.ReadString16(value) && value.size() < parcel.GetDataSize();
                });
                break;
        }
    }
    return 0;
}
