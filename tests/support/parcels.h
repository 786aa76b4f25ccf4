// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "varn/parcel.h"

namespace VARN {

// Every parcel consists of words of 4 bytes. False when one is not written.
inline bool PutWords(Parcel& parcel, const std::vector<int32_t>& words)
{
    return std::all_of(words.begin(), words.end(), [&parcel](int32_t word) { return parcel.WriteInt32(word); });
}

// What is left in the parcel. Consumes it.
inline std::vector<int32_t> TakeWords(Parcel& parcel)
{
    std::vector<int32_t> words;
    for (int32_t word = 0; parcel.ReadInt32(word);) {
        words.push_back(word);
    }
    return words;
}

}  // namespace VARN
