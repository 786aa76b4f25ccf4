// SPDX-License-Identifier: Apache-2.0
#include "cli/output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace SecurityPrivacyTools {
namespace {

// Against one long name in a list of thousands, which would pad every row to its length.
constexpr size_t MAX_COLUMN = 40;
constexpr size_t GAP = 2;

// Takes the first character off `text`, which is visible and so has whole ones alone, and returns its columns.
size_t TakeCharacter(std::string_view& text)
{
    wchar_t character = L'?';
    text.remove_prefix(static_cast<size_t>(std::max(std::mbtowc(&character, text.data(), text.size()), 1)));
    // -1 where the system does not know the character.
    return static_cast<size_t>(std::abs(::wcwidth(character)));
}

std::string Dump(const Program& program, const Json& value)
{
    return value.dump(program.isCompact ? -1 : 2, ' ', true, Json::error_handler_t::replace);
}

std::string CellText(const Column& column, const Json& object)
{
    return column.format != nullptr ? column.format(object) : Text(object, column.member);
}

}  // namespace

const Json& Member(const Json& object, const std::string& name)
{
    static const Json nothing;
    return object.contains(name) ? object[name] : nothing;
}

std::string Text(const Json& object, const std::string& name)
{
    const Json& member = Member(object, name);
    return member.is_string() ? member.get<std::string>() : member.dump();
}

void PrintRow(const Columns& columns, const Json& object)
{
    std::string line;
    for (const Column& column : columns) {
        const std::string text = object.is_null() ? column.heading : CellText(column, object);
        line += Padded(VisibleText(text), column.width) + std::string(GAP, ' ');
    }
    std::puts(line.erase(line.find_last_not_of(' ') + 1).c_str());
}

void PrintRecords(const Program& program, size_t count, Columns columns,
                  const std::function<Json(size_t index)>& makeObject)
{
    if (count == 0) {
        std::puts(program.isJson ? "[]" : "none");
        return;
    }
    if (program.isJson) {
        const std::string end = program.isCompact ? "]" : "\n]";
        for (size_t index = 0; index < count; ++index) {
            // A list of this one alone, without its end. All but the first take a comma in the place of its beginning.
            std::string item = Dump(program, Json::array({makeObject(index)}));
            item.front() = index == 0 ? '[' : ',';
            std::fwrite(item.data(), 1, item.size() - end.size(), stdout);
        }
        std::puts(end.c_str());
        return;
    }
    for (size_t index = 0; index < count; ++index) {
        const Json object = makeObject(index);
        for (Column& column : columns) {
            const size_t width = DisplayWidth(VisibleText(CellText(column, object)));
            column.width = std::max({column.width, column.heading.size(), std::min(width, MAX_COLUMN)});
        }
    }
    PrintRow(columns, Json());
    for (size_t index = 0; index < count; ++index) {
        PrintRow(columns, makeObject(index));
    }
}

void PrintResult(const Program& program, const Json& json, const std::string& text)
{
    std::puts((program.isJson ? Dump(program, json) : VisibleText(text)).c_str());
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
    return text.append(width - std::min(width, DisplayWidth(text)), ' ');
}

}  // namespace SecurityPrivacyTools
