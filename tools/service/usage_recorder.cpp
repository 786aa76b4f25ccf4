// SPDX-License-Identifier: Apache-2.0
#include "service/usage_recorder.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <vector>

#include "common/json_input.h"
#include "common/result_codes.h"
#include "service/device_import.h"

namespace SecurityPrivacyTools {
namespace {

// Longer than any event: input that never ends a line must not fill the memory.
constexpr size_t MAX_LINE_BYTES = 65536;
// Events stored or dropped in one transaction, so that others who write wait a few milliseconds at most.
constexpr size_t MAX_BATCH = 1000;

// Waits for a line and takes with it what has arrived behind it; nothing at the end.
std::vector<std::string> NextLines(std::istream& input, const std::string& name)
{
    std::vector<std::string> lines;
    std::array<char, MAX_LINE_BYTES> line;
    while (lines.size() < MAX_BATCH && (lines.empty() || input.rdbuf()->in_avail() > 0) && !input.eof()) {
        input.getline(line.data(), line.size());
        if (input.bad() || (input.fail() && !input.eof() && input.gcount() == 0)) {
            throw InputError(name + ": cannot read: " + std::strerror(errno));
        }
        const bool isTooLong = input.fail() && !input.eof();
        // The end of the line counts, but is not there.
        const auto end = static_cast<size_t>(input.gcount()) - (input.good() ? 1 : 0);
        if (input.gcount() != 0) {
            lines.emplace_back(line.data(), isTooLong ? MAX_LINE_BYTES : end);
        }
        if (isTooLong) {
            break;
        }
    }
    return lines;
}

void StoreLine(Connection& connection, const std::string& place, const std::string& line)
{
    if (line.size() == MAX_LINE_BYTES) {
        throw InputError(place + ": is longer than " + std::to_string(MAX_LINE_BYTES) + " bytes");
    }
    AddUsageEvent(connection, ParseJson(place, line));
}

}  // namespace

int64_t RecordUsage(Database& database, const std::string& path)
{
    const std::string name = path == "-" ? "standard input" : path;
    std::ifstream input(path == "-" ? "/dev/stdin" : path);
    if (!input) {
        throw InputError(name + ": cannot open: " + std::strerror(errno));
    }
    int64_t stored = 0;
    for (auto lines = NextLines(input, name); !lines.empty(); lines = NextLines(input, name)) {
        int64_t number = stored;
        try {
            database.Write([&](Connection& connection) {
                for (const std::string& line : lines) {
                    ++number;
                    StoreLine(connection, name + ": line " + std::to_string(number), line);
                }
                return RESULT_OK;
            });
        } catch (const InputError& error) {
            throw InputError(std::string(error.what()) + "; the first " + std::to_string(stored) +
                             " lines are stored, and no other");
        }
        stored = number;
    }
    return stored;
}

int64_t DropUsageBefore(Database& database, int64_t time)
{
    int64_t dropped = 0;
    database.Write([&](Connection& connection) {
        dropped = connection.Run(
            "DELETE FROM usage WHERE id IN (SELECT id FROM usage WHERE began < ? ORDER BY began LIMIT ?)", time,
            static_cast<int64_t>(MAX_BATCH));
        return RESULT_OK;
    });
    return dropped;
}

}  // namespace SecurityPrivacyTools
