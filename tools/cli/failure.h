// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace SecurityPrivacyTools {

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

}  // namespace SecurityPrivacyTools
