// SPDX-License-Identifier: Apache-2.0
#include "cli/time_axis.h"

#include <algorithm>
#include <ctime>

#include "cli/time_text.h"

namespace SecurityPrivacyExample {
namespace {

constexpr int64_t MONTH = 28 * DAY;

// The distance of the ticks: the smallest round one that leaves room for their labels.
int64_t ChooseStep(const TimeScale& scale)
{
    constexpr int64_t STEPS[] = {MINUTE,   2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR,
                                 2 * HOUR, 3 * HOUR,   6 * HOUR,   12 * HOUR,   DAY,         2 * DAY,     7 * DAY,
                                 14 * DAY, MONTH,      3 * MONTH,  6 * MONTH,   13 * MONTH};
    constexpr int64_t LABEL_COLUMNS = 8;
    const int64_t labels = std::max<int64_t>(static_cast<int64_t>(scale.columns) / LABEL_COLUMNS, 1);
    for (const int64_t step : STEPS) {
        if ((scale.end - scale.begin) / step <= labels) {
            return step;
        }
    }
    return ((scale.end - scale.begin) / labels / DAY + 1) * DAY;
}

std::string TickLabel(int64_t time, int64_t step)
{
    if (step >= MONTH) {
        return "|" + FormatTime(time, "%Y-%m");
    }
    const bool isMidnight = FormatTime(time, "%H:%M") == "00:00";
    return "|" + FormatTime(time, isMidnight || step >= DAY ? "%m-%d" : "%H:%M");
}

}  // namespace

size_t TimeScale::Column(int64_t time) const
{
    if (time <= begin) {
        return 0;
    }
    // As a fraction: the product of span and columns could overflow.
    const double share = static_cast<double>(time - begin) / static_cast<double>(end - begin);
    return share < 1.0 ? static_cast<size_t>(share * static_cast<double>(columns)) : columns - 1;
}

std::string DrawTimeAxis(const TimeScale& scale)
{
    const int64_t step = ChooseStep(scale);
    const auto beginSeconds = static_cast<std::time_t>(scale.begin / SECOND);
    std::tm midnight = {};
    ::localtime_r(&beginSeconds, &midnight);
    midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;

    std::string axis(scale.columns, ' ');
    size_t freeFrom = 0;
    const int64_t ticks = (scale.end - scale.begin + DAY) / step + 1;
    for (int64_t tick = 0; tick < ticks; ++tick) {
        // Days are counted by the calendar, so that a change of the clock does not shift the ticks behind it.
        std::tm date = midnight;
        date.tm_mday += static_cast<int>(tick * step / DAY);
        date.tm_sec = static_cast<int>(tick * step % DAY / SECOND);
        date.tm_isdst = -1;
        const int64_t time = int64_t{std::mktime(&date)} * SECOND;
        const size_t column = scale.Column(time);
        if (time < scale.begin || time >= scale.end || column < freeFrom) {
            continue;
        }
        const std::string label = TickLabel(time, step);
        const std::string fitting = column + label.size() <= scale.columns ? label : "|";
        axis.replace(column, fitting.size(), fitting);
        freeFrom = column + fitting.size() + 1;
    }
    axis.erase(axis.find_last_not_of(' ') + 1);
    return axis;
}

}  // namespace SecurityPrivacyExample
