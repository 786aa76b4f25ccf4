// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "varn/host/ability_server.h"

namespace SecurityPrivacyExample {

// What the command line says.
struct Options {
    std::string dataPath;
    std::string statePath;  // empty: changes are forgotten at the end
    bool shiftsToNow = false;
    bool isReadOnly = false;
    std::vector<uid_t> changers;
    bool isVerbose = false;
    VARN::Host::AbilityServerOptions server;
};

// Reads the command line. Without a value, `exitCode` is what the program has to end with: help was printed or there
// was a mistake, which was said on standard error.
std::optional<Options> ReadOptions(int argc, char** argv, int& exitCode);

}  // namespace SecurityPrivacyExample
