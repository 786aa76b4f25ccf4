// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "varn/host/log_sink.h"
#include "varn/parcel.h"

namespace fuzz {

// The bytes of one run, to be taken from the front.
inline std::string_view MakeInput(const uint8_t* bytes, size_t size)
{
    return {reinterpret_cast<const char*>(bytes), size};
}

// What is asked for beyond the end is 0.
template <class T>
T Take(std::string_view& input)
{
    T value = 0;
    const size_t size = std::min(sizeof(value), input.size());
    std::memcpy(&value, input.data(), size);
    input.remove_prefix(size);
    return value;
}

// Everything that is left, as the contents of a parcel.
inline void TakeParcel(std::string_view& input, VARN::Parcel& parcel)
{
    while (!input.empty()) {
        parcel.WriteInt32(Take<int32_t>(input));
    }
}

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
