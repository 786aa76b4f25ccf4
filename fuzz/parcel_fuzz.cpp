// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <type_traits>
#include <vector>

#include "fuzz/input.h"
#include "parcel_buffer.h"

namespace {

using VARN::Parcel;

// A read that fails leaves the cursor and its target; one that succeeds gives no more than was there.
template <class T>
void Check(Parcel& parcel, bool (Parcel::*read)(T&), T value)
{
    const T before = value;
    const size_t readable = parcel.GetReadableBytes();
    if ((parcel.*read)(value)) {
        fuzz::Require(parcel.GetReadableBytes() < readable);
        if constexpr (!std::is_arithmetic_v<T>) {
            fuzz::Require(value.size() < parcel.GetDataSize());
        }
    } else {
        fuzz::Require(parcel.GetReadableBytes() == readable && value == before);
    }
}

constexpr void (*CHECKS[])(Parcel&) = {
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadBool, true); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadInt32, -7); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadInt64, int64_t{-7}); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadString, std::string("kept")); },
    [](Parcel& parcel) { Check(parcel, &Parcel::ReadString16, std::u16string(u"kept")); },
};

}  // namespace

// The first byte of the input says how many reads follow, each chosen by one byte; the rest is the parcel.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    std::string_view input = fuzz::MakeInput(bytes, size);
    const auto reads = fuzz::Take<uint8_t>(input);
    std::string_view choices = input;
    input.remove_prefix(std::min<size_t>(reads, input.size()));
    // Lent, since what arrives need not be a multiple of a word.
    std::vector<uint8_t> contents(input.begin(), input.end());
    Parcel parcel;
    VARN::ParcelBuffer::Lend(parcel, contents.data(), contents.size());
    for (size_t index = 0; index < reads; ++index) {
        CHECKS[fuzz::Take<uint8_t>(choices) % std::size(CHECKS)](parcel);
    }
    return 0;
}
