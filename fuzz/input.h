// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "varn/host/log_sink.h"
#include "varn/parcel.h"

namespace fuzz {

// The bytes of one run, taken from the front. What is asked for beyond the end is 0.
class Input {
public:
    Input(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(size) {}

    size_t GetSize() const { return size_; }
    const uint8_t* GetBytes() const { return bytes_; }

    template <class T>
    T Take()
    {
        T value = 0;
        const uint8_t* from = bytes_;
        std::memcpy(&value, from, Skip(sizeof(value)));
        return value;
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
            parcel.WriteInt32(Take<int32_t>());
        }
    }

private:
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

// Lines are made, since making one is code under test as well, and not shown.
inline const bool isQuiet = (VARN::Host::SetLogSink([](const VARN::Host::LogLine&) {}), true);

}  // namespace fuzz
