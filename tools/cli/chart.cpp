// SPDX-License-Identifier: Apache-2.0
#include "cli/chart.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <utility>

#include "cli/output.h"
#include "cli/time_axis.h"
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

constexpr int64_t MINUTE = 60000;

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

Rows DrawRows(const std::vector<PermissionUsageRecord>& records, const Letters& letters, const TimeScale& scale,
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

// What all names begin with, up to a dot: said once, in the corner, it leaves more room for the time.
std::string CommonPrefix(const Rows& rows)
{
    const std::string& first = rows.begin()->first.first;
    const std::string& last = rows.rbegin()->first.first;
    const auto differs = std::mismatch(first.begin(), first.end(), last.begin(), last.end()).first;
    const size_t dot = std::string(first.begin(), differs).rfind('.');
    return dot == std::string::npos ? "" : first.substr(0, dot + 1);
}

// Cut at the front, where names differ least.
std::string Fit(const std::string& label, size_t width)
{
    return label.size() <= width ? label : ".." + label.substr(label.size() - width + 2);
}

// The label of each row: the app, with its uid where the app has several rows. The first is for the corner.
std::vector<std::string> MakeLabels(const Rows& rows)
{
    const std::string prefix = CommonPrefix(rows);
    std::vector<std::string> labels{Visible(prefix)};
    for (const auto& [key, row] : rows) {
        const auto isSameApp = [&name = key.first](const auto& other) { return other.first.first == name; };
        const bool isAlone = std::count_if(rows.begin(), rows.end(), isSameApp) == 1;
        labels.push_back(Visible(key.first.substr(prefix.size())) + (isAlone ? "" : " " + std::to_string(key.second)));
    }
    return labels;
}

// The sequence that shows a character of a row: a colour for each group, nothing faint, the signs bold.
std::string ColourOf(char shown, const Letters& letters)
{
    constexpr int FIRST_COLOUR = 31;
    constexpr int COLOURS = 6;
    const auto upper = static_cast<char>(std::toupper(static_cast<unsigned char>(shown)));
    int colour = FIRST_COLOUR;
    for (const auto& [group, letter] : letters) {
        if (letter == upper) {
            return "\x1b[1;" + std::to_string(colour) + "m";
        }
        colour = FIRST_COLOUR + (colour - FIRST_COLOUR + 1) % COLOURS;
    }
    return shown == NOTHING ? "\x1b[2m" : "\x1b[1m";
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

std::string DrawLegend(const Letters& letters, const Rows& rows, const ChartOptions& options)
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
        const bool fits = lineLength == 0 || lineLength + entry.size() + 3 <= options.width;
        legend += lineLength == 0 ? "" : (fits ? "   " : "\n");
        lineLength = (fits && lineLength != 0 ? lineLength + 3 : 0) + entry.size();
        const bool isSign = entry[1] == ' ';
        legend += options.isColoured && isSign ? Coloured(entry.substr(0, 1), letters) + entry.substr(1) : entry;
    }
    return legend + "\n";
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

}  // namespace

std::string DrawChart(const std::vector<PermissionUsageRecord>& records, const ChartOptions& options)
{
    const Letters letters = ChooseLetters(records);
    const bool marksDenied = !std::all_of(records.begin(), records.end(), IsDenied);
    TimeScale scale = MakeScale(records, options);

    Rows rows;
    for (const PermissionUsageRecord& record : records) {
        rows[{record.GetBundleName(), record.GetUid()}];
    }
    const std::vector<std::string> labels = MakeLabels(rows);
    const size_t longest = std::max_element(labels.begin(), labels.end(), [](const auto& left, const auto& right) {
                               return left.size() < right.size();
                           })->size();
    const size_t room = options.width > MIN_COLUMNS + 1 ? options.width - MIN_COLUMNS - 1 : 0;
    const size_t labelWidth = std::min(longest, std::max(room, MIN_LABEL));
    scale.columns = std::max(options.width, labelWidth + 1 + MIN_COLUMNS) - labelWidth - 1;
    rows = DrawRows(records, letters, scale, marksDenied);

    const int64_t columnSpan = (scale.end - scale.begin) / static_cast<int64_t>(scale.columns);
    std::string chart = FormatTime(scale.begin) + " to " + FormatTime(scale.end) + ", one column is " +
                        FormatSpan(0, columnSpan) + (marksDenied ? "" : ", all denied") + "\n";
    const auto addLine = [&](const std::string& label, const std::string& text) {
        std::string line = Fit(label, labelWidth);
        line.resize(labelWidth + 1, ' ');
        chart += line + text + "\n";
    };
    auto label = labels.begin();
    addLine(*label, DrawTimeAxis(scale));
    for (const auto& [key, row] : rows) {
        addLine(*++label, options.isColoured ? Coloured(row, letters) : row);
    }
    return chart + DrawLegend(letters, rows, options);
}

}  // namespace SecurityPrivacyExample
