// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "varn/parcel.h"

namespace fuzz {

// The bytes of one run, taken from the front. What is asked for beyond the end is 0.
class Input {
public:
    Input(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(size) {}

    size_t GetSize() const { return size_; }
    const uint8_t* GetBytes() const { return bytes_; }

    uint8_t TakeByte()
    {
        uint8_t byte = 0;
        Take(&byte, 1);
        return byte;
    }
    int32_t TakeWord()
    {
        int32_t word = 0;
        Take(&word, sizeof(word));
        return word;
    }
    // Skips up to `size` bytes and says how many there were.
    size_t Skip(size_t size)
    {
        const size_t part = std::min(size, size_);
        bytes_ += part;
        size_ -= part;
        return part;
    }
    // Everything that is left, as the contents of a parcel.
    void TakeParcel(VARN::Parcel& parcel)
    {
        while (size_ != 0) {
            parcel.WriteInt32(TakeWord());
        }
    }

private:
    void Take(void* to, size_t size)
    {
        const uint8_t* from = bytes_;
        std::memcpy(to, from, Skip(size));
    }

    const uint8_t* bytes_;
    size_t size_;
};

// Ends the run as a finding.
inline void Require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

}  // namespace fuzz
