// SPDX-License-Identifier: Apache-2.0
#include "cli/value_text.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace SecurityPrivacyTools {
namespace {

// In 1973. Who writes a smaller number means seconds, or forgot a unit.
constexpr int64_t LEAST_MILLISECONDS = 100000000000;

// "1d12h" or nothing.
std::optional<int64_t> ParseSpan(std::string_view text)
{
    constexpr std::string_view UNITS = "smhdw";
    constexpr int64_t LENGTHS[] = {SECOND, MINUTE, HOUR, DAY, 7 * DAY};
    int64_t span = 0;
    do {
        const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
        const std::optional<int64_t> number = ParseWhole<int64_t>(text.substr(0, digits));
        const size_t unit = UNITS.find(text.substr(digits, 1));
        if (!number || digits == text.size() || unit == std::string_view::npos ||
            *number > (MAX_TIME - span) / LENGTHS[unit]) {
            return std::nullopt;
        }
        span += *number * LENGTHS[unit];
        text.remove_prefix(digits + 1);
    } while (!text.empty());
    return span;
}

std::optional<int64_t> ParseDate(std::string text, int64_t now)
{
    constexpr std::string_view OFFSET = "+01:00";
    std::replace(text.begin(), text.end(), ' ', 'T');
    const size_t sign = std::max(text.size(), OFFSET.size()) - OFFSET.size();
    // strptime knows shorter offsets, but in "2026-11-20-10" the hour is meant.
    const bool hasOffset = text.back() == 'Z' || (text.find_first_of("+-", sign) == sign && text[sign + 3] == ':');
    for (std::string format : {"%Y-%m-%d", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S", "%H:%M", "%H:%M:%S"}) {
        std::tm date = {};
        const char* end = ::strptime(text.c_str(), format.append(hasOffset ? "%z" : "").c_str(), &date);
        const int64_t offset = date.tm_gmtoff;
        if (end == nullptr || *end != '\0' || std::abs(offset) * SECOND >= DAY) {
            continue;
        }
        if (format[1] == 'H') {
            const auto seconds = static_cast<std::time_t>(now / SECOND + offset);
            std::tm today = {};
            hasOffset ? ::gmtime_r(&seconds, &today) : ::localtime_r(&seconds, &today);
            date.tm_year = today.tm_year;
            date.tm_mon = today.tm_mon;
            date.tm_mday = today.tm_mday;
        }
        date.tm_isdst = -1;
        const int day = date.tm_mday;
        const int64_t time = ((hasOffset ? ::timegm(&date) : std::mktime(&date)) - offset) * SECOND;
        // The 30th of February would have become the 2nd of March.
        return date.tm_mday == day && time >= 0 && time <= MAX_TIME ? std::optional<int64_t>(time) : std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

std::optional<int64_t> ParseTime(const std::string& text)
{
    static const int64_t now = std::chrono::system_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
    if (text.empty()) {
        return std::nullopt;
    }
    if (text == "now" || text == "today") {
        return text == "now" ? now : ParseDate("00:00", now);
    }
    const int64_t unit = text.front() == '@' ? SECOND : 1;
    if (const std::optional<int64_t> number = ParseWhole<int64_t>(std::string_view(text).substr(unit == SECOND))) {
        const bool isMeant = *number >= (unit == SECOND ? 0 : LEAST_MILLISECONDS) && *number <= MAX_TIME / unit;
        return isMeant ? std::optional<int64_t>(*number * unit) : std::nullopt;
    }
    if (const std::optional<int64_t> span = ParseSpan(text)) {
        return *span <= now ? std::optional<int64_t>(now - *span) : std::nullopt;
    }
    return ParseDate(text, now);
}

std::string FormatTime(int64_t time, const char* format)
{
    const auto seconds = static_cast<std::time_t>(time / SECOND);
    std::tm local = {};
    if (::localtime_r(&seconds, &local) == nullptr) {
        return std::to_string(time);
    }
    char text[64];
    return std::string(text, std::strftime(text, sizeof(text), format, &local));
}

std::string FormatSpan(int64_t begin, int64_t end)
{
    // The numbers may be any: without the sign the difference cannot overflow.
    const uint64_t milliseconds = end > begin ? static_cast<uint64_t>(end) - static_cast<uint64_t>(begin) : 0;
    constexpr std::pair<uint64_t, const char*> UNITS[] = {
        {DAY, " d"}, {HOUR, " h"}, {MINUTE, " min"}, {SECOND, " s"}, {1, " ms"}};
    const auto* large = UNITS;
    while (large->first > milliseconds && large->first > 1) {
        ++large;
    }
    const auto [length, name] = *large;
    std::string text = std::to_string(milliseconds / length) + name;
    if (length > SECOND && milliseconds % length >= large[1].first) {
        text += " " + std::to_string(milliseconds % length / large[1].first) + large[1].second;
    }
    return text;
}

}  // namespace SecurityPrivacyTools
