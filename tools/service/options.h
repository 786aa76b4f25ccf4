// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "varn/host/ability_server.h"

namespace SecurityPrivacyTools {

enum class Task { SERVE, IMPORT, RECORD };

// What the command line says.
struct Options {
    Task task = Task::SERVE;
    std::string databasePath;  // empty: in memory, forgotten at the end
    std::string inputPath;     // device data, or the events to record ("-": standard input)
    bool shiftsToNow = false;
    int64_t keepUsageSeconds = 0;  // 0: for ever
    bool isReadOnly = false;
    std::vector<uid_t> changers;
    bool isVerbose = false;
    int64_t stallTimeoutMs = 0;  // also in `server`
    VARN::Host::AbilityServerOptions server;
};

// Reads the command line. Without a value, `exitCode` is what the program has to end with: help was printed or there
// was a mistake, which was said on standard error.
std::optional<Options> ReadOptions(int argc, char** argv, int& exitCode);

}  // namespace SecurityPrivacyTools
