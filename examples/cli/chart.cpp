// SPDX-License-Identifier: Apache-2.0
#include "cli/chart.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <map>
#include <set>
#include <utility>

#include "cli/output.h"
#include "cli/time_text.h"
#include "common/usage_codes.h"

namespace SecurityPrivacyExample {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;

constexpr size_t MIN_COLUMNS = 20;
constexpr size_t MIN_LABEL = 8;

constexpr char NOTHING = '.';
constexpr char SEVERAL = '*';
constexpr char DENIED = '!';

constexpr int64_t SECOND = 1000;
constexpr int64_t MINUTE = 60 * SECOND;
constexpr int64_t HOUR = 60 * MINUTE;
constexpr int64_t DAY = 24 * HOUR;

// The time that the columns stand for.
struct Scale {
    int64_t begin = 0;
    int64_t end = 0;
    size_t columns = 0;

    // The column of a moment, also of one outside.
    size_t Column(int64_t time) const
    {
        if (time <= begin) {
            return 0;
        }
        // As a fraction: the product of span and columns could overflow.
        const double share = static_cast<double>(time - begin) / static_cast<double>(end - begin);
        return std::min(static_cast<size_t>(share * static_cast<double>(columns)), columns - 1);
    }
};

using Letters = std::map<std::string, char>;
using RowKey = std::pair<std::string, int32_t>;  // app and uid
using Rows = std::map<RowKey, std::string>;      // a character for each column

bool IsDenied(const PermissionUsageRecord& record)
{
    return record.GetOperationMode() == MODE_DENIED;
}

// A letter of its name for each group, the most used one first; a digit or a sign when all are taken.
Letters ChooseLetters(const std::vector<PermissionUsageRecord>& records)
{
    std::map<std::string, int64_t> uses;
    for (const PermissionUsageRecord& record : records) {
        ++uses[record.GetOperationGroup()];
    }
    std::vector<std::pair<std::string, int64_t>> groups(uses.begin(), uses.end());
    std::stable_sort(groups.begin(), groups.end(),
                     [](const auto& left, const auto& right) { return left.second > right.second; });
    Letters letters;
    std::set<char> taken;
    for (const auto& [group, count] : groups) {
        char letter = '?';
        for (const char candidate : group + "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789") {
            const auto upper = static_cast<char>(std::toupper(static_cast<unsigned char>(candidate)));
            if (std::isalnum(static_cast<unsigned char>(upper)) != 0 && taken.insert(upper).second) {
                letter = upper;
                break;
            }
        }
        letters[group] = letter;
    }
    return letters;
}

// What a column shows when a use is added to what it shows already.
char Merge(char shown, char added)
{
    if (shown == NOTHING || shown == DENIED) {
        return added;
    }
    if (added == DENIED || shown == SEVERAL) {
        return shown;
    }
    const auto upper = static_cast<char>(std::toupper(static_cast<unsigned char>(shown)));
    if (upper != std::toupper(static_cast<unsigned char>(added))) {
        return SEVERAL;
    }
    return shown == added ? shown : upper;
}

Rows DrawRows(const std::vector<PermissionUsageRecord>& records, const Letters& letters, const Scale& scale,
              bool marksDenied)
{
    Rows rows;
    for (const PermissionUsageRecord& record : records) {
        char letter = letters.at(record.GetOperationGroup());
        if (marksDenied && IsDenied(record)) {
            letter = DENIED;
        } else if (record.GetAppState() == APP_IN_BACKGROUND) {
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        }
        std::string& row = rows[{record.GetBundleName(), record.GetUid()}];
        row.resize(scale.columns, NOTHING);
        const size_t last = scale.Column(record.GetEndTimestamp());
        for (size_t column = scale.Column(record.GetBeginTimestamp()); column <= last; ++column) {
            row[column] = Merge(row[column], letter);
        }
    }
    return rows;
}

// The distance of the ticks: the smallest round one that leaves room for their labels.
int64_t ChooseStep(const Scale& scale)
{
    constexpr int64_t STEPS[] = {MINUTE,   2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR,
                                 2 * HOUR, 3 * HOUR,   6 * HOUR,   12 * HOUR,   DAY,         2 * DAY,     7 * DAY,
                                 14 * DAY, 28 * DAY,   91 * DAY,   182 * DAY,   364 * DAY};
    constexpr int64_t LABEL_COLUMNS = 9;
    const int64_t labels = std::max<int64_t>(static_cast<int64_t>(scale.columns) / LABEL_COLUMNS, 1);
    for (const int64_t step : STEPS) {
        if ((scale.end - scale.begin) / step <= labels) {
            return step;
        }
    }
    return (scale.end - scale.begin) / labels;
}

std::string TickLabel(int64_t time, int64_t step)
{
    if (step >= 28 * DAY) {
        return "|" + FormatTime(time, "%Y-%m");
    }
    const bool isMidnight = FormatTime(time, "%H:%M") == "00:00";
    return "|" + FormatTime(time, isMidnight || step >= DAY ? "%m-%d" : "%H:%M");
}

// Ticks stand on round local times; days are counted by the calendar, so that a change of the clock does not shift
// them.
std::string DrawAxis(const Scale& scale)
{
    const int64_t step = ChooseStep(scale);
    const auto beginSeconds = static_cast<std::time_t>(scale.begin / SECOND);
    std::tm midnight = {};
    ::localtime_r(&beginSeconds, &midnight);
    midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;

    std::string axis(scale.columns, ' ');
    size_t freeFrom = 0;
    for (int64_t tick = 0, time = 0; time < scale.end; ++tick) {
        std::tm date = midnight;
        date.tm_mday += static_cast<int>(tick * step / DAY);
        date.tm_sec = static_cast<int>(tick * step % DAY / SECOND);
        date.tm_isdst = -1;
        time = int64_t{std::mktime(&date)} * SECOND;
        const std::string label = TickLabel(time, step);
        const size_t column = scale.Column(time);
        const bool isInside = time >= scale.begin && time < scale.end && column + label.size() <= scale.columns;
        if (isInside && (column >= freeFrom)) {
            axis.replace(column, label.size(), label);
            freeFrom = column + label.size() + 1;
        }
    }
    axis.erase(axis.find_last_not_of(' ') + 1);
    return axis;
}

// The label of a row: the app, with its uid where the app has several rows, cut at the front.
std::string RowLabel(const Rows& rows, const RowKey& key, size_t width)
{
    const auto& [bundleName, uid] = key;
    const auto isSameApp = [&name = bundleName](const auto& row) { return row.first.first == name; };
    std::string label = Visible(bundleName);
    if (std::count_if(rows.begin(), rows.end(), isSameApp) > 1) {
        label += " " + std::to_string(uid);
    }
    return label.size() <= width ? label : ".." + label.substr(label.size() - width + 2);
}

// The letters in colours of their own, runs of the same letter at once.
std::string Coloured(const std::string& row, const Letters& letters)
{
    constexpr int FIRST_COLOUR = 31;
    constexpr int COLOURS = 6;
    std::map<char, int> colours;
    int next = 0;
    for (const auto& [group, letter] : letters) {
        colours[letter] = FIRST_COLOUR + next++ % COLOURS;
    }
    std::string text;
    for (size_t from = 0; from < row.size();) {
        const size_t to = std::min(row.find_first_not_of(row[from], from), row.size());
        const auto colour = colours.find(static_cast<char>(std::toupper(static_cast<unsigned char>(row[from]))));
        const std::string run = row.substr(from, to - from);
        if (row[from] == NOTHING) {
            text += "\x1b[2m" + run + "\x1b[0m";
        } else if (colour != colours.end()) {
            text += "\x1b[1;" + std::to_string(colour->second) + "m" + run + "\x1b[0m";
        } else {
            text += "\x1b[1m" + run + "\x1b[0m";
        }
        from = to;
    }
    return text;
}

std::string DrawLegend(const Letters& letters, const Rows& rows, size_t width)
{
    std::vector<std::string> entries;
    for (const auto& [group, letter] : letters) {
        entries.push_back(letter + (" " + Visible(group)));
    }
    const auto isShown = [&](auto wanted) {
        return std::any_of(rows.begin(), rows.end(),
                           [&](const auto& row) { return std::any_of(row.second.begin(), row.second.end(), wanted); });
    };
    if (isShown([](char shown) { return shown == SEVERAL; })) {
        entries.emplace_back("* several");
    }
    if (isShown([](char shown) { return shown == DENIED; })) {
        entries.emplace_back("! denied");
    }
    if (isShown([](char shown) { return std::islower(static_cast<unsigned char>(shown)) != 0; })) {
        entries.emplace_back("small letter: in the background");
    }
    std::string legend;
    size_t lineLength = 0;
    for (const std::string& entry : entries) {
        const bool fits = lineLength == 0 || lineLength + entry.size() + 3 <= width;
        legend += lineLength == 0 ? "" : (fits ? "   " : "\n");
        lineLength = (fits && lineLength != 0 ? lineLength + 3 : 0) + entry.size();
        legend += entry;
    }
    return legend + "\n";
}

Scale MakeScale(const std::vector<PermissionUsageRecord>& records, const ChartOptions& options)
{
    Scale scale{options.begin, options.end, 0};
    if (scale.begin == 0) {
        scale.begin = std::min_element(records.begin(), records.end(), [](const auto& left, const auto& right) {
                          return left.GetBeginTimestamp() < right.GetBeginTimestamp();
                      })->GetBeginTimestamp();
    }
    if (scale.end == 0) {
        scale.end = std::max_element(records.begin(), records.end(), [](const auto& left, const auto& right) {
                        return left.GetEndTimestamp() < right.GetEndTimestamp();
                    })->GetEndTimestamp();
    }
    // A single moment still needs a span to stand in.
    scale.end = std::max(scale.end, scale.begin + MINUTE);
    return scale;
}

}  // namespace

std::string DrawChart(const std::vector<PermissionUsageRecord>& records, const ChartOptions& options)
{
    const Letters letters = ChooseLetters(records);
    const bool marksDenied = !std::all_of(records.begin(), records.end(), IsDenied);
    Scale scale = MakeScale(records, options);

    Rows rows;
    for (const PermissionUsageRecord& record : records) {
        rows[{record.GetBundleName(), record.GetUid()}];
    }
    size_t labelWidth = 0;
    for (const auto& [key, row] : rows) {
        labelWidth = std::max(labelWidth, RowLabel(rows, key, options.width).size());
    }
    const size_t room = options.width > MIN_COLUMNS + 1 ? options.width - MIN_COLUMNS - 1 : 0;
    labelWidth = std::min(labelWidth, std::max(room, MIN_LABEL));
    scale.columns = std::max(options.width, labelWidth + 1 + MIN_COLUMNS) - labelWidth - 1;
    rows = DrawRows(records, letters, scale, marksDenied);

    const int64_t columnSpan = (scale.end - scale.begin) / static_cast<int64_t>(scale.columns);
    std::string chart = FormatTime(scale.begin) + " to " + FormatTime(scale.end) + ", one column is " +
                        FormatSpan(columnSpan) + (marksDenied ? "" : ", all denied") + "\n";
    chart += std::string(labelWidth + 1, ' ') + DrawAxis(scale) + "\n";
    for (const auto& [key, row] : rows) {
        std::string label = RowLabel(rows, key, labelWidth);
        label.resize(labelWidth + 1, ' ');
        chart += label + (options.isColoured ? Coloured(row, letters) : row) + "\n";
    }
    return chart + DrawLegend(letters, rows, options.width);
}

}  // namespace SecurityPrivacyExample
