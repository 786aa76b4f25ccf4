// SPDX-License-Identifier: Apache-2.0
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "cli/output.h"
#include "cli/value_text.h"
#include "common/usage_codes.h"

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;

constexpr size_t DEFAULT_WIDTH = 80;
constexpr size_t MAX_WIDTH = 300;
// Labels may take a third of the width, but not less than this.
constexpr size_t MIN_LABEL = 8;
constexpr size_t MIN_COLUMNS = 20;

constexpr char NOTHING = '.';
constexpr char SEVERAL = '*';
constexpr char DENIED = '!';

struct Row {
    std::string label;
    std::string signs;  // one for each column
};

// By the app and its uid.
using Rows = std::map<std::pair<std::string_view, int32_t>, Row>;
using Letters = std::map<std::string, char>;
// The sequence that comes before a sign; none at all for an output without colours.
using Colours = std::map<char, std::string>;

// A span of time, in milliseconds since the epoch, and the columns that stand for it.
struct TimeScale {
    int64_t begin;  // from 0
    int64_t end;    // after begin, up to MAX_TIME and a little more
    size_t columns;

    // The column of a moment; the first or the last one for a moment outside.
    size_t Column(int64_t time) const
    {
        // As a fraction: the difference, or the product of span and columns, could overflow.
        const double passed = static_cast<double>(time) - static_cast<double>(begin);
        const double share = passed / static_cast<double>(end - begin);
        const auto count = static_cast<double>(columns);
        return static_cast<size_t>(std::clamp(share * count, 0.0, count - 1));
    }
};

// Columns of the terminal; in a pipe what COLUMNS says, or 80.
size_t OutputWidth()
{
    winsize size = {};  // stays 0 where there is no terminal
    ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    const char* columns = std::getenv("COLUMNS");
    const size_t inPipe = columns != nullptr ? std::strtoul(columns, nullptr, 10) : 0;
    const size_t width = size.ws_col != 0 ? size.ws_col : inPipe;
    return width == 0 ? DEFAULT_WIDTH : std::min(width, MAX_WIDTH);
}

char Upper(char letter)
{
    return static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
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
    const auto take = [&taken](unsigned char sign) {
        return std::isalnum(sign) != 0 && taken.insert(Upper(static_cast<char>(sign))).second;
    };
    for (const auto& [group, count] : groups) {
        const std::string candidates = group + "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
        const auto letter = std::find_if(candidates.begin(), candidates.end(), take);
        letters[group] = letter != candidates.end() ? Upper(*letter) : '?';
    }
    return letters;
}

// For a terminal that shows colours: denied uses white on red, a colour for each group.
Colours ChooseColours(const Letters& letters)
{
    const char* terminal = std::getenv("TERM");
    const char* noColour = std::getenv("NO_COLOR");
    if (::isatty(STDOUT_FILENO) == 0 || terminal == nullptr || std::strcmp(terminal, "dumb") == 0 ||
        (noColour != nullptr && *noColour != '\0')) {
        return {};
    }
    constexpr size_t FIRST_COLOUR = 32;
    constexpr size_t COLOURS = 5;
    Colours colours = {{DENIED, "\x1b[1;97;41m"}, {NOTHING, "\x1b[2m"}, {SEVERAL, "\x1b[1m"}};
    size_t place = 0;
    for (const auto& [group, letter] : letters) {
        colours.emplace(letter, "\x1b[1;" + std::to_string(FIRST_COLOUR + place++ % COLOURS) + "m");
    }
    return colours;
}

// Runs of the same sign are coloured at once.
std::string Coloured(const std::string& signs, const Colours& colours)
{
    std::string text;
    for (size_t from = 0, to = 0; from < signs.size() && !colours.empty(); from = to) {
        to = std::min(signs.find_first_not_of(signs[from], from), signs.size());
        text += colours.at(Upper(signs[from])) + signs.substr(from, to - from) + "\x1b[0m";
    }
    return colours.empty() ? signs : text;
}

// What a column shows when a use is added to what it shows already. A denied use hides the others.
char Merge(char shown, char added)
{
    if (shown == NOTHING || added == DENIED) {
        return added;
    }
    if (shown == added || shown == DENIED) {
        return shown;
    }
    return Upper(shown) == Upper(added) ? Upper(shown) : SEVERAL;
}

size_t CommonLength(std::string_view left, std::string_view right)
{
    return static_cast<size_t>(std::mismatch(left.begin(), left.end(), right.begin(), right.end()).first -
                               left.begin());
}

// Labels the rows with the app, and its uid where the app has several rows. Where that is too wide for `room`, uids
// lose what stands behind the last digit in which those of an app differ; only then names are cut. Returns what all
// names begin with, up to a dot: said once, in the corner, it leaves more room for the time.
std::string LabelRows(Rows& rows, size_t room)
{
    const std::string_view first = rows.begin()->first.first;
    const size_t prefix = first.substr(0, CommonLength(first, rows.rbegin()->first.first)).rfind('.') + 1;
    size_t digits = 0;
    size_t widest = 0;
    for (auto next = rows.begin(), row = next++; next != rows.end(); row = next++) {
        if (row->first.first == next->first.first) {
            const std::string& uid = row->second.label = " " + std::to_string(row->first.second);
            const std::string& nextUid = next->second.label = " " + std::to_string(next->first.second);
            digits = std::max(digits, CommonLength(uid, nextUid) + 1);
            widest = std::max(widest, DisplayWidth(VisibleText(row->first.first.substr(prefix))) +
                                          std::max(uid.size(), nextUid.size()));
        }
    }
    for (auto& [app, row] : rows) {
        std::string& uid = row.label;
        if (widest > room && uid.size() > digits + 2) {
            uid.replace(digits, std::string::npos, "..");
        }
        uid.insert(0, FitEnd(VisibleText(app.first.substr(prefix)), room - std::min(uid.size(), room)));
    }
    return FitEnd(VisibleText(first.substr(0, prefix)), room);
}

// `shown` are the signs of all rows.
void PrintLegend(const Letters& letters, const std::set<char>& shown, const Colours& colours, size_t width)
{
    std::vector<std::string> entries;
    if (shown.count(DENIED) != 0) {
        entries.emplace_back("! denied");
    }
    for (const auto& [group, letter] : letters) {
        entries.push_back(letter + (" " + VisibleText(group)));
    }
    if (shown.count(SEVERAL) != 0) {
        entries.emplace_back("* several");
    }
    if (std::any_of(shown.begin(), shown.end(), [](unsigned char sign) { return std::islower(sign) != 0; })) {
        entries.emplace_back("small letter: in the background");
    }
    std::string text;
    size_t column = 0;
    for (const std::string& entry : entries) {
        const bool fits = column + DisplayWidth(entry) + 3 <= width;
        text += text.empty() ? "" : fits ? "   " : "\n";
        column = DisplayWidth(entry) + (fits && column != 0 ? column + 3 : 0);
        text += entry[1] == ' ' ? Coloured(entry.substr(0, 1), colours) + entry.substr(1) : entry;
    }
    std::puts(text.c_str());
}

constexpr int64_t MONTH = 28 * DAY;

// The distance of the ticks: the smallest round one that leaves room for their labels.
int64_t ChooseStep(const TimeScale& scale)
{
    constexpr int64_t STEPS[] = {MINUTE,   2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR,
                                 2 * HOUR, 3 * HOUR,   6 * HOUR,   12 * HOUR,   DAY,         2 * DAY,     7 * DAY,
                                 14 * DAY, MONTH,      3 * MONTH,  6 * MONTH,   13 * MONTH};
    constexpr size_t LABEL_COLUMNS = 8;
    const auto labels = static_cast<int64_t>(std::max<size_t>(scale.columns / LABEL_COLUMNS, 1));
    const int64_t least = (scale.end - scale.begin) / (labels + 1) + 1;
    const auto* step = std::lower_bound(std::begin(STEPS), std::end(STEPS), least);
    return step != std::end(STEPS) ? *step : ((scale.end - scale.begin) / labels / DAY + 1) * DAY;
}

// The line above the columns: ticks on round local times and what they stand for, each behind a blank.
std::string DrawTimeAxis(const TimeScale& scale)
{
    const int64_t step = ChooseStep(scale);
    const auto beginSeconds = static_cast<std::time_t>(scale.begin / SECOND);
    std::tm midnight = {};
    ::localtime_r(&beginSeconds, &midnight);
    midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;

    std::string axis;
    const int64_t ticks = (scale.end - scale.begin + DAY) / step + 1;
    for (int64_t tick = 0; tick < ticks; ++tick) {
        // Days are counted by the calendar, so that a change of the clock does not shift the ticks behind it.
        std::tm date = midnight;
        date.tm_mday += static_cast<int>(tick * step / DAY);
        date.tm_sec = static_cast<int>(tick * step % DAY / SECOND);
        date.tm_isdst = -1;
        const int64_t time = int64_t{std::mktime(&date)} * SECOND;
        const size_t column = scale.Column(time);
        if (time < scale.begin || time >= scale.end || column + 1 <= axis.size()) {
            continue;
        }
        const bool isDay = step >= DAY || (date.tm_hour == 0 && date.tm_min == 0);
        const std::string label = FormatTime(time, step >= MONTH ? "|%Y-%m" : isDay ? "|%m-%d" : "|%H:%M");
        axis.resize(column + 1, ' ');
        axis += column + label.size() <= scale.columns ? label : "|";
    }
    return axis;
}

void DrawUses(const std::vector<PermissionUsageRecord>& records, const Letters& letters, bool marksDenied,
              const TimeScale& scale, Rows& rows)
{
    for (const PermissionUsageRecord& record : records) {
        std::string& signs = rows[{record.GetBundleName(), record.GetUid()}].signs;
        signs.resize(scale.columns, NOTHING);
        char sign = letters.at(record.GetOperationGroup());
        if (marksDenied && record.GetOperationMode() == MODE_DENIED) {
            sign = DENIED;
        } else if (record.GetAppState() == APP_IN_BACKGROUND) {
            sign = static_cast<char>(std::tolower(static_cast<unsigned char>(sign)));
        }
        const size_t last = scale.Column(record.GetEndTimestamp());
        for (size_t column = scale.Column(record.GetBeginTimestamp()); column <= last; ++column) {
            signs[column] = Merge(signs[column], sign);
        }
    }
}

}  // namespace

void PrintChart(const std::vector<PermissionUsageRecord>& records, int64_t begin, int64_t end)
{
    Rows rows;
    int64_t first = MAX_TIME;
    int64_t last = 0;
    bool marksDenied = false;  // not where all are
    for (const PermissionUsageRecord& record : records) {
        rows[{record.GetBundleName(), record.GetUid()}];
        first = std::min(first, record.GetBeginTimestamp());
        last = std::max(last, record.GetEndTimestamp());
        marksDenied = marksDenied || record.GetOperationMode() != MODE_DENIED;
    }
    const size_t width = OutputWidth();
    const std::string corner = LabelRows(rows, std::max(width / 3, MIN_LABEL));
    size_t labelWidth = DisplayWidth(corner);
    for (const auto& [app, row] : rows) {
        labelWidth = std::max(labelWidth, DisplayWidth(row.label));
    }
    // The service may send any number.
    TimeScale scale{std::clamp<int64_t>(begin != 0 ? begin : first, 0, MAX_TIME),
                    std::clamp<int64_t>(end != 0 ? end : last, 0, MAX_TIME),
                    std::max(width, labelWidth + 1 + MIN_COLUMNS) - labelWidth - 1};
    // A single moment still needs a span to stand in.
    scale.end = std::max(scale.end, scale.begin + MINUTE);
    const Letters letters = ChooseLetters(records);
    DrawUses(records, letters, marksDenied, scale, rows);

    const std::string span = FormatTime(scale.begin) + " to " + FormatTime(scale.end);
    const std::string column = "one column is " +
                               FormatSpan(0, (scale.end - scale.begin) / static_cast<int64_t>(scale.columns)) +
                               (marksDenied ? "" : ", all denied");
    std::puts((span + (span.size() + column.size() + 2 <= width ? ", " : ",\n") + column).c_str());
    std::puts((Padded(corner, labelWidth) + DrawTimeAxis(scale)).c_str());
    const Colours colours = ChooseColours(letters);
    std::set<char> shown;
    for (const auto& [app, row] : rows) {
        shown.insert(row.signs.begin(), row.signs.end());
        std::puts((Padded(row.label, labelWidth + 1) + Coloured(row.signs, colours)).c_str());
    }
    PrintLegend(letters, shown, colours, width);
}

}  // namespace SecurityPrivacyTools
