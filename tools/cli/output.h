// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "security_privacy/permission_usage_record.h"
#include "varn/host/visible_text.h"

namespace SecurityPrivacyTools {

// Names and texts come from the service: whoever prints one makes visible what a terminal would obey.

using Json = nlohmann::ordered_json;
using VARN::Host::VisibleText;

// How the program ends. Scripts rely on the numbers: never renumber.
enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_SERVICE_RESULT = 1,  // the service answered with a result other than 0
    EXIT_USAGE = 2,           // the command line or a file that it names is wrong; nothing was sent
    EXIT_UNREACHABLE = 3,     // no service was found
    EXIT_REFUSED = 4,         // the service does not let this user do that
    EXIT_BROKEN = 5,          // the connection was lost, it took too long, or one side did not understand the other
};

// Ends the command: main prints the message and returns the exit code.
struct Failure : std::runtime_error {
    // `code` is the number that came back, `name` its name where it has one.
    Failure(ExitCode failureExit, const std::string& message, int32_t failureCode = 0, std::string failureName = "")
        : std::runtime_error(message), exitCode(failureExit), code(failureCode), name(std::move(failureName))
    {
    }

    ExitCode exitCode;
    int32_t code;
    std::string name;
};

// What the command line says for every command.
struct Program {
    bool isJson = false;
    bool isCompact = false;   // JSON without line breaks; only with isJson
    int32_t waitSeconds = 4;  // for a service that is not there yet
    bool isVerbose = false;   // shows the log lines
};

// A column of a table of JSON objects: it shows `member` as it is, or the text that `format` makes of the object. A
// table that is not printed line by line finds its own widths.
struct Column {
    std::string heading;
    std::string member;
    std::string (*format)(const Json& object) = nullptr;
    size_t width = 0;
};
using Columns = std::vector<Column>;

// The member of an object; null where there is none.
const Json& Member(const Json& object, const std::string& name);

// The member as text, a string without its quotes.
std::string Text(const Json& object, const std::string& name);

// Prints a line of a table, its headings for null. Nothing follows the last text of a line.
void PrintRow(const Columns& columns, const Json& object);

// Prints `count` records as the command line says: a JSON list, or a table, "none" where there are no records.
// `makeObject` is called again whenever a record is needed, so that a long table takes no memory. A column is as wide
// as its longest text, but one text alone does not widen it past 40 columns: a table stays about as long as what is in
// it.
void PrintRecords(const Program& program, size_t count, Columns columns,
                  const std::function<Json(size_t index)>& makeObject);

// Prints a result as the command line says: `json`, or the line `text`. In JSON other characters than ASCII are
// escaped, bytes that are no UTF-8 replaced.
void PrintResult(const Program& program, const Json& json, const std::string& text);

// Draws a timeline on standard output, as wide as the terminal: a row for each app, time from left to right, a letter
// where the app used an operation group, "!" where a use was denied. Title, axis and legend are part of it. `records`
// must not be empty. The span is in milliseconds since the epoch; 0: from the first use, to the last.
void PrintChart(
    const std::vector<VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord>& records,
    int64_t begin, int64_t end);

// Brings out what was printed. Throws Failure when that cannot be written.
void FinishOutput();

// How many columns a terminal takes for a visible text.
size_t DisplayWidth(std::string_view text);

// The end of a visible text, ".." before it, where the text is wider than `width`.
std::string FitEnd(const std::string& text, size_t width);

// A visible text and blanks up to `width` columns.
std::string Padded(std::string text, size_t width);

}  // namespace SecurityPrivacyTools
