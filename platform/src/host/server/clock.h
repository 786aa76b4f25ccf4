// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace VARN::Host {

constexpr int64_t NANOSECONDS_PER_MILLISECOND = 1'000'000;

// The steady clock, exact.
inline int64_t SteadyNanoseconds()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// The same clock, some milliseconds behind at most, for a few nanoseconds of work.
inline int64_t CoarseMilliseconds()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / NANOSECONDS_PER_MILLISECOND;
}

}  // namespace VARN::Host
