// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace VARN::Host {

// A point in time by which something has to be over, whatever it consists of.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    explicit Deadline(Clock::duration fromNow) : begin_(Clock::now()), end_(begin_ + fromNow) {}

    // What is left, for poll(2): 0 when it is over, rounded up, so that waiting that long reaches it.
    int LeftMilliseconds() const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
        return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
    }
    // All of the time, from the beginning.
    Clock::duration GetTime() const { return end_ - begin_; }
    // Whether so little of the time is gone that to wait once more for the whole of it does not matter.
    bool HasJustBegun() const { return Clock::now() - begin_ < BEGINNING; }
    bool IsOver() const { return Clock::now() >= end_; }

private:
    static constexpr std::chrono::milliseconds BEGINNING{50};

    Clock::time_point begin_;
    Clock::time_point end_;
};

}  // namespace VARN::Host
