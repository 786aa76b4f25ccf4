// SPDX-License-Identifier: Apache-2.0
#include "cli/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "cli/failure.h"

namespace SecurityPrivacyExample {
namespace {

constexpr size_t DEFAULT_WIDTH = 80;
constexpr size_t MAX_WIDTH = 1000;

// Characters, not bytes: those that continue a UTF-8 sequence do not count.
size_t CountCharacters(const std::string& text)
{
    constexpr unsigned char SEQUENCE_BITS = 0xc0;
    constexpr unsigned char CONTINUATION = 0x80;
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & SEQUENCE_BITS) != CONTINUATION;
    }));
}

void PrintRow(const TableRow& row, const std::vector<size_t>& widths)
{
    std::string line;
    for (size_t column = 0; column < row.size(); ++column) {
        line += row[column];
        line.append(widths[column] - CountCharacters(row[column]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    PrintLine(line);
}

}  // namespace

void PrintTable(const TableRow& headings, const std::vector<TableRow>& rows)
{
    if (rows.empty()) {
        PrintLine("none");
        return;
    }
    std::vector<TableRow> all{headings};
    for (const TableRow& row : rows) {
        all.emplace_back();
        std::transform(row.begin(), row.end(), std::back_inserter(all.back()),
                       [](const std::string& text) { return Visible(text); });
    }
    std::vector<size_t> widths(headings.size());
    for (const TableRow& row : all) {
        for (size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], CountCharacters(row[column]));
        }
    }
    for (const TableRow& row : all) {
        PrintRow(row, widths);
    }
}

void PrintJson(const nlohmann::ordered_json& value)
{
    PrintLine(value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void PrintLine(const std::string& text)
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

std::string Visible(std::string_view text)
{
    constexpr unsigned char DELETE = 0x7f;
    std::string visible;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= ' ' && byte != DELETE) {
            visible += character;
            continue;
        }
        char escaped[5];
        std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
        visible += escaped;
    }
    return visible;
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

}  // namespace SecurityPrivacyExample
