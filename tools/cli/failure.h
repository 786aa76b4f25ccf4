// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace SecurityPrivacyExample {

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
class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& message) : Failure(exitCode, 0, "", message) {}

    // With the number that came back, and its name where it has one.
    Failure(ExitCode exitCode, int32_t code, std::string name, const std::string& message)
        : std::runtime_error(message), exitCode_(exitCode), code_(code), name_(std::move(name))
    {
    }

    ExitCode GetExitCode() const { return exitCode_; }
    int32_t GetCode() const { return code_; }
    const std::string& GetName() const { return name_; }

private:
    ExitCode exitCode_;
    int32_t code_;
    std::string name_;
};

}  // namespace SecurityPrivacyExample
