// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace SecurityPrivacyExample {

// A span of time, in milliseconds since the epoch, and the columns that stand for it.
struct TimeScale {
    int64_t begin = 0;  // from 0
    int64_t end = 0;    // after begin, up to MAX_TIME and a little more
    size_t columns = 0;

    // The column of a moment; the first or the last one for a moment outside.
    size_t Column(int64_t time) const;
};

// The line above the columns: ticks on round local times and what they stand for.
std::string DrawTimeAxis(const TimeScale& scale);

}  // namespace SecurityPrivacyExample
