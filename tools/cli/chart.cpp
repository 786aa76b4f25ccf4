// SPDX-License-Identifier: Apache-2.0
#include "cli/chart.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "cli/output.h"
#include "cli/time_text.h"
#include "common/usage_codes.h"

namespace SecurityPrivacyTools {
namespace {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;

// Labels may take a third of the width, but not less than this.
constexpr size_t MIN_LABEL = 8;
constexpr size_t MIN_COLUMNS = 20;

constexpr char NOTHING = '.';
constexpr char SEVERAL = '*';
constexpr char DENIED = '!';

using Letters = std::map<std::string, char>;
// The uses that a row shows, by the app and its uid.
using Rows = std::map<std::pair<std::string_view, int32_t>, std::vector<const PermissionUsageRecord*>>;

// A span of time, in milliseconds since the epoch, and the columns that stand for it.
struct TimeScale {
    int64_t begin = 0;  // from 0
    int64_t end = 0;    // after begin, up to MAX_TIME and a little more
    size_t columns = 0;

    // The column of a moment; the first or the last one for a moment outside.
    size_t Column(int64_t time) const
    {
        if (time <= begin) {
            return 0;
        }
        // As a fraction: the product of span and columns could overflow.
        const double share = static_cast<double>(time - begin) / static_cast<double>(end - begin);
        return share < 1.0 ? static_cast<size_t>(share * static_cast<double>(columns)) : columns - 1;
    }
};

char Upper(char letter)
{
    return static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
}

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
            if (std::isalnum(static_cast<unsigned char>(candidate)) != 0 && taken.insert(Upper(candidate)).second) {
                letter = Upper(candidate);
                break;
            }
        }
        letters[group] = letter;
    }
    return letters;
}

// What a column shows when a use is added to what it shows already. A denied use hides the others.
char Merge(char shown, char added)
{
    if (shown == NOTHING || added == DENIED) {
        return added;
    }
    if (shown == DENIED || shown == SEVERAL) {
        return shown;
    }
    if (Upper(shown) != Upper(added)) {
        return SEVERAL;
    }
    return shown == added ? shown : Upper(shown);
}

void DrawUse(std::string& row, const PermissionUsageRecord& record, char letter, const TimeScale& scale)
{
    const bool isSmall = letter != DENIED && record.GetAppState() == APP_IN_BACKGROUND;
    const int shown = isSmall ? std::tolower(static_cast<unsigned char>(letter)) : letter;
    const size_t last = scale.Column(record.GetEndTimestamp());
    for (size_t column = scale.Column(record.GetBeginTimestamp()); column <= last; ++column) {
        row[column] = Merge(row[column], static_cast<char>(shown));
    }
}

// What all names begin with, up to a dot: said once, in the corner, it leaves more room for the time.
std::string_view CommonPrefix(const Rows& rows)
{
    const std::string_view first = rows.begin()->first.first;
    const std::string_view last = rows.rbegin()->first.first;
    const auto differs = std::mismatch(first.begin(), first.end(), last.begin(), last.end()).first;
    const std::string_view same = first.substr(0, static_cast<size_t>(differs - first.begin()));
    return same.substr(0, same.rfind('.') + 1);
}

// The labels of the rows: the app, and its uid where the app has several rows. Where one is too wide for `room`, uids
// lose what stands behind the last digit in which those of an app differ; only then names are cut.
std::vector<std::string> MakeLabels(const Rows& rows, size_t prefixLength, size_t room)
{
    std::vector<std::pair<std::string, std::string>> parts;  // name and uid
    size_t digits = 0;
    size_t widest = 0;
    for (auto row = rows.begin(); row != rows.end(); ++row) {
        const std::string_view name = row->first.first;
        parts.emplace_back(VisibleText(name.substr(prefixLength)), "");
        if (row == rows.begin() || std::prev(row)->first.first != name) {
            continue;
        }
        const std::string& uid = parts.back().second = " " + std::to_string(row->first.second);
        const std::string& before = parts.rbegin()[1].second = " " + std::to_string(std::prev(row)->first.second);
        const auto differs = std::mismatch(uid.begin(), uid.end(), before.begin(), before.end()).first;
        digits = std::max(digits, static_cast<size_t>(differs - uid.begin()) + 1);
        widest = std::max(widest, DisplayWidth(parts.back().first) + std::max(uid.size(), before.size()));
    }
    std::vector<std::string> labels;
    for (const auto& [name, uid] : parts) {
        const bool isShort = widest > room && uid.size() > digits + 2;
        const std::string end = isShort ? uid.substr(0, digits) + ".." : uid;
        labels.push_back(FitEnd(name, room - std::min(end.size(), room)) + end);
    }
    return labels;
}

// The sequence that shows a character of a row: denied uses white on red, a colour for each group.
std::string ColourOf(char shown, const Letters& letters)
{
    constexpr int FIRST_COLOUR = 32;
    constexpr int COLOURS = 5;
    const auto isShown = [shown](const auto& entry) { return entry.second == Upper(shown); };
    const auto group = std::find_if(letters.begin(), letters.end(), isShown);
    if (group != letters.end()) {
        return "\x1b[1;" + std::to_string(FIRST_COLOUR + std::distance(letters.begin(), group) % COLOURS) + "m";
    }
    return shown == DENIED ? "\x1b[1;97;41m" : shown == NOTHING ? "\x1b[2m" : "\x1b[1m";
}

// Runs of the same character are coloured at once.
std::string Coloured(const std::string& row, const Letters& letters)
{
    std::string text;
    for (size_t from = 0; from < row.size();) {
        const size_t to = std::min(row.find_first_not_of(row[from], from), row.size());
        text += ColourOf(row[from], letters) + row.substr(from, to - from) + "\x1b[0m";
        from = to;
    }
    return text;
}

// `shown` are the characters of all rows.
void PrintLegend(const Letters& letters, const std::set<char>& shown, const ChartOptions& options)
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
    std::string line;
    size_t lineLength = 0;
    for (const std::string& entry : entries) {
        if (lineLength != 0 && lineLength + DisplayWidth(entry) + 3 > options.width) {
            PrintLine(std::exchange(line, ""));
            lineLength = 0;
        }
        const bool isSign = entry[1] == ' ';
        line += (lineLength == 0 ? "" : "   ") +
                (options.isColoured && isSign ? Coloured(entry.substr(0, 1), letters) + entry.substr(1) : entry);
        lineLength += DisplayWidth(entry) + (lineLength == 0 ? 0 : 3);
    }
    PrintLine(line);
}

TimeScale MakeScale(const std::vector<PermissionUsageRecord>& records, const ChartOptions& options)
{
    TimeScale scale;
    int64_t first = MAX_TIME;
    int64_t last = 0;
    for (const PermissionUsageRecord& record : records) {
        first = std::min(first, record.GetBeginTimestamp());
        last = std::max(last, record.GetEndTimestamp());
    }
    // The service may send any number.
    scale.begin = std::clamp<int64_t>(options.begin != 0 ? options.begin : first, 0, MAX_TIME);
    scale.end = std::clamp<int64_t>(options.end != 0 ? options.end : last, 0, MAX_TIME);
    // A single moment still needs a span to stand in.
    scale.end = std::max(scale.end, scale.begin + MINUTE);
    return scale;
}

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

// The line above the columns: ticks on round local times and what they stand for.
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

void PrintTitle(const TimeScale& scale, bool marksDenied, size_t width)
{
    const std::string span = FormatTime(scale.begin) + " to " + FormatTime(scale.end);
    const std::string column = "one column is " +
                               FormatSpan(0, (scale.end - scale.begin) / static_cast<int64_t>(scale.columns)) +
                               (marksDenied ? "" : ", all denied");
    PrintLine(span + (span.size() + column.size() + 2 <= width ? ", " : ",\n") + column);
}

}  // namespace

void PrintChart(const std::vector<PermissionUsageRecord>& records, const ChartOptions& options)
{
    const Letters letters = ChooseLetters(records);
    const bool marksDenied = !std::all_of(records.begin(), records.end(), IsDenied);
    Rows rows;
    for (const PermissionUsageRecord& record : records) {
        rows[{record.GetBundleName(), record.GetUid()}].push_back(&record);
    }
    const std::string_view prefix = CommonPrefix(rows);
    const size_t room = std::max(options.width / 3, MIN_LABEL);
    std::vector<std::string> labels = MakeLabels(rows, prefix.size(), room);
    labels.push_back(FitEnd(VisibleText(prefix), room));
    size_t labelWidth = 0;
    for (const std::string& label : labels) {
        labelWidth = std::max(labelWidth, DisplayWidth(label));
    }
    TimeScale scale = MakeScale(records, options);
    scale.columns = std::max(options.width, labelWidth + 1 + MIN_COLUMNS) - labelWidth - 1;

    PrintTitle(scale, marksDenied, options.width);
    PrintLine(Padded(labels.back(), labelWidth + 1) + DrawTimeAxis(scale));
    std::set<char> shown;
    auto label = labels.begin();
    for (const auto& [app, uses] : rows) {
        std::string row(scale.columns, NOTHING);
        for (const PermissionUsageRecord* use : uses) {
            DrawUse(row, *use, marksDenied && IsDenied(*use) ? DENIED : letters.at(use->GetOperationGroup()), scale);
        }
        shown.insert(row.begin(), row.end());
        PrintLine(Padded(*label++, labelWidth + 1) + (options.isColoured ? Coloured(row, letters) : row));
    }
    PrintLegend(letters, shown, options);
}

}  // namespace SecurityPrivacyTools
