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

struct OutputOptions {
    bool isJson = false;
    bool isCompact = false;  // JSON without line breaks; only with isJson
};

using VARN::Host::VisibleText;

using TableRow = std::vector<std::string>;

// Prints `count` rows under their headings, "none" where there are no rows. A column is as wide as its longest text,
// but one text alone does not widen it past 40 columns: a table stays about as long as what is in it. `makeRow` is
// called twice for each row, so that a long table needs no memory.
void PrintTable(const TableRow& headings, size_t count, const std::function<TableRow(size_t)>& makeRow);

// Prints a value, by itself or as an item of a list. Other characters than ASCII are escaped, bytes that are no UTF-8
// replaced.
void PrintJson(const OutputOptions& options, const nlohmann::ordered_json& value);

// Prints a list item by item, so that a long one needs no memory.
void PrintJsonList(const OutputOptions& options, size_t count,
                   const std::function<nlohmann::ordered_json(size_t)>& makeItem);

// Prints records as the options say: a table, or a list of JSON objects.
template <class Record, class ToRow, class ToJson>
void PrintRecords(const OutputOptions& options, const std::vector<Record>& records, const TableRow& headings,
                  ToRow toRow, ToJson toJson)
{
    if (options.isJson) {
        PrintJsonList(options, records.size(), [&](size_t index) { return toJson(records[index]); });
    } else {
        PrintTable(headings, records.size(), [&](size_t index) { return toRow(records[index]); });
    }
}

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

// Columns of the terminal; in a pipe what COLUMNS says, or 80.
size_t OutputWidth();

// Whether standard output is a terminal that shows colours (and NO_COLOR is not set).
bool IsColoured();

}  // namespace SecurityPrivacyTools
