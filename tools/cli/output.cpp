// SPDX-License-Identifier: Apache-2.0
#include "cli/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "cli/failure.h"

namespace SecurityPrivacyTools {
namespace {

constexpr size_t DEFAULT_WIDTH = 80;
constexpr size_t MAX_WIDTH = 300;
// Against one long name in a list of thousands, which would pad every row to its length.
constexpr size_t MAX_COLUMN = 40;
constexpr size_t GAP = 2;

// Takes the first character off `text` and returns its columns.
size_t TakeCharacter(std::string_view& text)
{
    wchar_t character = 0;
    std::mbstate_t state = {};
    const size_t length = std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool isCharacter = length > 0 && length <= text.size();
    text.remove_prefix(isCharacter ? length : 1);
    const int width = isCharacter ? ::wcwidth(character) : 1;
    return width < 0 ? 1 : static_cast<size_t>(width);
}

std::string Dump(const OutputOptions& options, const nlohmann::ordered_json& value)
{
    return value.dump(options.isCompact ? -1 : 2, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace

void PrintTable(const TableRow& headings, size_t count, const std::function<TableRow(size_t)>& makeRow)
{
    if (count == 0) {
        PrintLine("none");
        return;
    }
    std::vector<size_t> widths;
    for (const std::string& heading : headings) {
        widths.push_back(heading.size());
    }
    for (size_t index = 0; index < count; ++index) {
        const TableRow row = makeRow(index);
        for (size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], std::min(DisplayWidth(VisibleText(row[column])), MAX_COLUMN));
        }
    }
    const auto printRow = [&widths](const TableRow& row) {
        std::string line;
        for (size_t column = 0; column < row.size(); ++column) {
            line += Padded(VisibleText(row[column]), widths[column]) + std::string(GAP, ' ');
        }
        PrintLine(std::string_view(line).substr(0, line.find_last_not_of(' ') + 1));
    };
    printRow(headings);
    for (size_t index = 0; index < count; ++index) {
        printRow(makeRow(index));
    }
}

void PrintJson(const OutputOptions& options, const nlohmann::ordered_json& value)
{
    PrintLine(Dump(options, value));
}

void PrintJsonList(const OutputOptions& options, size_t count,
                   const std::function<nlohmann::ordered_json(size_t)>& makeItem)
{
    const char* lineBreak = options.isCompact ? "" : "\n";
    std::fputs("[", stdout);
    for (size_t index = 0; index < count; ++index) {
        std::string item = (index == 0 ? "" : ",") + (lineBreak + Dump(options, makeItem(index)));
        for (size_t at = 0; !options.isCompact && (at = item.find('\n', at)) != std::string::npos; at += 3) {
            item.insert(at + 1, "  ");
        }
        std::fwrite(item.data(), 1, item.size(), stdout);
    }
    PrintLine(count == 0 ? "]" : std::string(lineBreak) + "]");
}

void PrintLine(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

void FinishOutput()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw Failure(EXIT_BROKEN, std::string("cannot write to standard output: ") + std::strerror(errno));
    }
}

size_t DisplayWidth(std::string_view text)
{
    size_t width = 0;
    while (!text.empty()) {
        width += TakeCharacter(text);
    }
    return width;
}

std::string FitEnd(const std::string& text, size_t width)
{
    std::string_view end = text;
    size_t left = DisplayWidth(end);
    if (left <= width) {
        return text;
    }
    while (left + 2 > width && !end.empty()) {
        left -= TakeCharacter(end);
    }
    return ".." + std::string(end);
}

std::string Padded(std::string text, size_t width)
{
    const size_t shown = DisplayWidth(text);
    return shown < width ? text.append(width - shown, ' ') : text;
}

size_t OutputWidth()
{
    winsize size = {};
    size_t width = 0;
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
        width = size.ws_col;
    }
    if (width == 0) {
        const char* columns = std::getenv("COLUMNS");
        width = columns != nullptr ? std::strtoul(columns, nullptr, 10) : 0;
    }
    return width == 0 ? DEFAULT_WIDTH : std::min(width, MAX_WIDTH);
}

bool IsColoured()
{
    const char* terminal = std::getenv("TERM");
    const char* noColour = std::getenv("NO_COLOR");
    return ::isatty(STDOUT_FILENO) != 0 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0 &&
           (noColour == nullptr || *noColour == '\0');
}

}  // namespace SecurityPrivacyTools
