// SPDX-License-Identifier: Apache-2.0
#include "cli/time_text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <ctime>
#include <string_view>

namespace SecurityPrivacyTools {
namespace {

constexpr int64_t WEEK = 7 * DAY;
// In 1973. Who writes a smaller number means seconds, or forgot a unit.
constexpr int64_t LEAST_MILLISECONDS = 100000000000;

std::optional<int64_t> ParseNumber(const char*& position, const char* end)
{
    int64_t number = 0;
    const auto [stop, error] = std::from_chars(position, end, number);
    if (error != std::errc() || *position == '-' || number > MAX_TIME) {
        return std::nullopt;
    }
    position = stop;
    return number;
}

int64_t UnitLength(char unit)
{
    constexpr std::string_view UNITS = "smhdw";
    constexpr int64_t LENGTHS[] = {SECOND, MINUTE, HOUR, DAY, WEEK};
    const size_t index = UNITS.find(unit);
    return index != std::string_view::npos ? LENGTHS[index] : 0;
}

// "1d12h" or nothing.
std::optional<int64_t> ParseSpan(const std::string& text)
{
    const char* position = text.data();
    const char* end = position + text.size();
    int64_t span = 0;
    while (position != end) {
        const std::optional<int64_t> number = ParseNumber(position, end);
        const int64_t unit = position != end ? UnitLength(*position) : 0;
        if (!number || unit == 0 || *number > MAX_TIME / unit - span / unit) {
            return std::nullopt;
        }
        span += *number * unit;
        ++position;
    }
    return span;
}

// Takes "Z", "+01:00" or "-01:00" off the end: what to add to that time for UTC.
std::optional<int64_t> TakeOffset(std::string& text)
{
    constexpr size_t LENGTH = 6;
    std::tm offset = {};
    if (!text.empty() && text.back() == 'Z') {
        text.pop_back();
        return 0;
    }
    const size_t at = text.size() >= LENGTH ? text.size() - LENGTH : 0;
    if (at == 0 || (text[at] != '+' && text[at] != '-') ||
        std::isdigit(static_cast<unsigned char>(text[at + 1])) == 0) {
        return std::nullopt;
    }
    const char* end = ::strptime(text.c_str() + at + 1, "%H:%M", &offset);
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    const int64_t ahead = offset.tm_hour * HOUR + offset.tm_min * MINUTE;
    const bool isBehind = text[at] == '-';
    text.erase(at);
    return isBehind ? ahead : -ahead;
}

std::optional<int64_t> ParseDate(std::string text, int64_t now)
{
    const std::optional<int64_t> toUtc = TakeOffset(text);
    std::replace(text.begin(), text.end(), ' ', 'T');
    for (const char* format : {"%Y-%m-%d", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S", "%H:%M", "%H:%M:%S"}) {
        std::tm date = {};
        if (format[1] == 'H') {
            const auto seconds = static_cast<std::time_t>((now - toUtc.value_or(0)) / SECOND);
            toUtc ? ::gmtime_r(&seconds, &date) : ::localtime_r(&seconds, &date);
            date.tm_sec = 0;
        }
        const char* end = ::strptime(text.c_str(), format, &date);
        if (end == nullptr || *end != '\0') {
            continue;
        }
        date.tm_isdst = -1;
        const int day = date.tm_mday;
        const int64_t time = (toUtc ? ::timegm(&date) : std::mktime(&date)) * SECOND + toUtc.value_or(0);
        // The 30th of February would have become the 2nd of March.
        return date.tm_mday == day && time >= 0 && time <= MAX_TIME ? std::optional<int64_t>(time) : std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

int64_t Now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::optional<int64_t> ParseTime(const std::string& text, int64_t now)
{
    if (text.empty()) {
        return std::nullopt;
    }
    if (text == "now" || text == "today") {
        return text == "now" ? now : ParseDate("00:00", now);
    }
    const bool isSeconds = text.front() == '@';
    const char* position = text.data() + (isSeconds ? 1 : 0);
    const char* end = text.data() + text.size();
    const std::optional<int64_t> number = ParseNumber(position, end);
    if (number && position == end) {
        const bool isMeant = isSeconds ? *number <= MAX_TIME / SECOND : *number >= LEAST_MILLISECONDS;
        return isMeant ? std::optional<int64_t>(isSeconds ? *number * SECOND : *number) : std::nullopt;
    }
    if (const std::optional<int64_t> span = ParseSpan(text)) {
        return *span <= now ? std::optional<int64_t>(now - *span) : std::nullopt;
    }
    return ParseDate(text, now);
}

std::string FormatTime(int64_t time)
{
    return FormatTime(time, "%Y-%m-%d %H:%M:%S");
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
    struct Unit {
        uint64_t length;
        const char* name;
    };
    constexpr Unit UNITS[] = {{DAY, " d"}, {HOUR, " h"}, {MINUTE, " min"}, {SECOND, " s"}, {1, " ms"}};
    const Unit* large = UNITS;
    while (large->length > milliseconds && large->length > 1) {
        ++large;
    }
    std::string text = std::to_string(milliseconds / large->length) + large->name;
    if (large->length > SECOND && milliseconds % large->length >= large[1].length) {
        text += " " + std::to_string(milliseconds % large->length / large[1].length) + large[1].name;
    }
    return text;
}

}  // namespace SecurityPrivacyTools
