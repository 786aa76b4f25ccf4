// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace SecurityPrivacyTools {

// A decimal number with nothing around it, where it fits; null for any other text.
template <class T>
std::optional<T> ParseWhole(std::string_view text)
{
    T number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional<T>(number) : std::nullopt;
}

// Times are milliseconds since the epoch; dates without an offset are the local time of this process.

// The end of the year 9999. Sums and differences of times up to here stay far from overflow.
constexpr int64_t MAX_TIME = 253402300799999;

constexpr int64_t SECOND = 1000;
constexpr int64_t MINUTE = 60 * SECOND;
constexpr int64_t HOUR = 60 * MINUTE;
constexpr int64_t DAY = 24 * HOUR;

// A moment as a user writes it. Null for anything else, and for what is before 1970 or after MAX_TIME. "Now" is the
// same moment for all of them.
//   2026-11-20, 2026-11-20T10:00, 2026-11-20T10:00:30: local time; with Z or +01:00 behind it that of the offset; a
//                 blank may stand for the T
//   now, today, 10:00, 10:00:30: the local day of now
//   2h, 7d, 1d12h: so long before now; s, m, h, d, w
//   @1795197600: seconds since 1970
//   1795197600000: milliseconds since 1970, from 1973 on; a smaller number was meant otherwise
std::optional<int64_t> ParseTime(const std::string& text);

// A local time in the shape of strftime.
std::string FormatTime(int64_t time, const char* format = "%Y-%m-%d %H:%M:%S");

// From one moment to another in the two largest units: "1 h 42 min", "850 ms". "0 ms" when the end comes first.
std::string FormatSpan(int64_t begin, int64_t end);

}  // namespace SecurityPrivacyTools
