// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "varn/parcel.h"

namespace VARN {

// Writes values with the typed writes that their types name: a vector as its elements without a count. False when a
// write fails.
template <class T>
bool Put(Parcel& parcel, const T& value)
{
    if constexpr (std::is_same_v<T, int32_t>) {
        return parcel.WriteInt32(value);
    } else if constexpr (std::is_same_v<T, int64_t>) {
        return parcel.WriteInt64(value);
    } else if constexpr (std::is_same_v<T, bool>) {
        return parcel.WriteBool(value);
    } else if constexpr (std::is_same_v<T, std::u16string>) {
        return parcel.WriteString16(value);
    } else {
        return parcel.WriteString(value);
    }
}

template <class T>
bool Put(Parcel& parcel, const std::vector<T>& values)
{
    return std::all_of(values.begin(), values.end(), [&parcel](const T& value) { return Put(parcel, value); });
}

template <class... T>
bool PutAll(Parcel& parcel, const T&... values)
{
    return (Put(parcel, values) && ...);
}

// What is left in the parcel, as the 4-byte words of which every parcel consists. Consumes it.
inline std::vector<int32_t> TakeWords(Parcel& parcel)
{
    std::vector<int32_t> words;
    for (int32_t word = 0; parcel.ReadInt32(word);) {
        words.push_back(word);
    }
    return words;
}

}  // namespace VARN
