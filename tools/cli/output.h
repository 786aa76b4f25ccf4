// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace SecurityPrivacyExample {

using TableRow = std::vector<std::string>;

// Prints the rows under their headings, each column as wide as its longest text. "none" where there are no rows.
void PrintTable(const TableRow& headings, const std::vector<TableRow>& rows);

// Prints the value over several lines. Bytes that are no UTF-8 are replaced.
void PrintJson(const nlohmann::ordered_json& value);

void PrintLine(const std::string& text);

// Brings out what was printed. Throws Failure when that cannot be written.
void FinishOutput();

// The text with every byte that a terminal would obey shown as \x1b: names come from the service.
std::string Visible(std::string_view text);

// Columns of the terminal; in a pipe what COLUMNS says, or 80.
size_t OutputWidth();

// Whether standard output is a terminal that shows colours (and NO_COLOR is not set).
bool IsColoured();

}  // namespace SecurityPrivacyExample
