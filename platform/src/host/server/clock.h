// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace VARN::Host {

// The steady clock, exact.
inline int64_t SteadyMilliseconds()
{
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

// The same clock, some milliseconds behind at most, and cheaper.
inline int64_t CoarseMilliseconds()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace VARN::Host
