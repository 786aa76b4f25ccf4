// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "varn/host/visible_text.h"

namespace SecurityPrivacyTools {

// Every function that prints makes visible what a terminal would obey: names and texts come from the service.

using Json = nlohmann::ordered_json;
using VARN::Host::VisibleText;

struct OutputOptions {
    bool isJson = false;
    bool isCompact = false;  // JSON without line breaks; only with isJson
};

// A column of a table of JSON objects: it shows `member` as it is, or the text that `format` makes of it. Without a
// member `format` gets the whole object. A table that is not printed line by line finds its own widths.
struct Column {
    std::string heading;
    std::string member;
    std::string (*format)(const Json& value) = nullptr;
    size_t width = 0;
};
using Columns = std::vector<Column>;

// Makes the JSON object of a row. It is called again whenever the row is needed, so that a long table takes no memory.
using MakeObject = std::function<Json(size_t index)>;

// The member of an object; null where there is none.
const Json& Member(const Json& object, const std::string& name);

// The member as text, a string without its quotes.
std::string Text(const Json& object, const std::string& name);

// Prints a line of a table, its headings for null. Nothing follows the last text of a line.
void PrintRow(const Columns& columns, const Json& object);

// Prints `count` rows under their headings, "none" where there are no rows. A column is as wide as its longest text,
// but one text alone does not widen it past 40 columns: a table stays about as long as what is in it.
void PrintTable(Columns columns, size_t count, const MakeObject& makeObject);

// Prints a value. Other characters than ASCII are escaped, bytes that are no UTF-8 replaced.
void PrintJson(const OutputOptions& options, const Json& value);

// Prints a list of values.
void PrintJsonList(const OutputOptions& options, size_t count, const MakeObject& makeObject);

// Prints records as the options say: a list of the JSON objects that `toJson` makes of them, or their table.
template <class Record, class ToJson>
void PrintRecords(const OutputOptions& options, const std::vector<Record>& records, const Columns& columns,
                  ToJson toJson)
{
    const auto makeObject = [&](size_t index) -> Json { return toJson(records[index]); };
    if (options.isJson) {
        PrintJsonList(options, records.size(), makeObject);
    } else {
        PrintTable(columns, records.size(), makeObject);
    }
}

// Prints a result as the options say: `json`, or the line `text`.
void PrintResult(const OutputOptions& options, const Json& json, const std::string& text);

// As it is, and a newline.
void PrintLine(std::string_view text);

// Brings out what was printed. Throws Failure when that cannot be written.
void FinishOutput();

// How many columns a terminal takes for a visible text.
size_t DisplayWidth(std::string_view text);

// The end of a visible text, ".." before it, where the text is wider than `width`.
std::string FitEnd(const std::string& text, size_t width);

// `text` and blanks up to `width` columns.
std::string Padded(std::string text, size_t width);

}  // namespace SecurityPrivacyTools
