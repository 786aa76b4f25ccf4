// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "cli/connection.h"
#include "security_privacy/security_privacy_client.h"

namespace SecurityPrivacyExample {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyClient;

// The user whose apps are meant when nobody says otherwise: the first one of a device.
constexpr int32_t DEFAULT_USER_ID = 100;

// The command line, filled by the parser: what holds for every command, and the command to run.
struct Program {
    ConnectionOptions connection;
    bool isJson = false;
    std::function<void(const Connection&)> run;
};

// Each adds its commands to the parser.
void AddGroupsCommands(CLI::App& app, Program& program);
void AddUsageCommands(CLI::App& app, Program& program);
void AddGTokenCommands(CLI::App& app, Program& program);
void AddPingCommand(CLI::App& app, Program& program);

// An option that may be repeated and takes one value each time, so that it never swallows what follows.
template <class T>
CLI::Option* AddRepeatedOption(CLI::App& command, const std::string& name, std::vector<T>& values,
                               const std::string& description)
{
    return command.add_option(name, values, description)->allow_extra_args(false);
}

// Refuses a list that is longer than a request carries, since the rest would be dropped or the request refused.
void CheckLength(const char* option, size_t length, size_t limit);

}  // namespace SecurityPrivacyExample
