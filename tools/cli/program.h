// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "cli/output.h"
#include "cli/remote_service.h"

namespace SecurityPrivacyTools {

// The user whose apps are meant when none is named: the first one of a device.
constexpr int32_t DEFAULT_USER_ID = 100;

// What the command line says for every command.
struct Program {
    ServiceOptions service;
    OutputOptions output;
};

// Each adds its commands to the parser.
void AddGroupsCommands(CLI::App& app, const Program& program);
void AddUsageCommands(CLI::App& app, const Program& program);
void AddGTokenCommands(CLI::App& app, const Program& program);
void AddServiceCommands(CLI::App& app, const Program& program);

// Adds a command that runs `run` with options of its own, which live as long as the parser. Its manual ends as its
// parent's does, and with `footer`.
template <class Options>
std::pair<CLI::App&, Options&> AddCommand(CLI::App& parent, const Program& program, const char* name,
                                          const char* description, void (*run)(const Program&, const Options&),
                                          const std::string& footer)
{
    CLI::App* command = parent.add_subcommand(name, description)->footer(parent.get_footer() + footer);
    const auto options = std::make_shared<Options>();
    command->callback([&program, run, options] { run(program, *options); });
    return {*command, *options};
}

// Adds an option, or with a name in capitals an argument that has to be there; `take` gets its value. `text` says what
// that is: where it is "a|b", FILE or FOLDER, shells offer it. One that may be repeated takes one value each time, so
// that it never swallows what follows.
template <class T, class Take>
CLI::Option* AddReader(CLI::App& command, const char* name, Take take, const char* text, const std::string& description)
{
    CLI::Option* option = command.add_option_function<T>(name, take, description)->option_text(text);
    return option->get_positional() ? option->required() : option->allow_extra_args(false);
}

template <class T>
CLI::Option* AddOption(CLI::App& command, const char* name, T& value, const char* text, const std::string& description)
{
    return AddReader<T>(
        command, name, [&value](const T& given) { value = given; }, text, description);
}

// Refuses a list that is longer than a request carries, since the rest would be dropped or the request refused.
inline void CheckLength(const std::string& what, size_t length, size_t limit)
{
    if (length > limit) {
        throw Failure(EXIT_USAGE, what + ": " + std::to_string(length) + " values, a request carries at most " +
                                      std::to_string(limit));
    }
}

// Adds an option that may be repeated, until there are as many values as a request carries.
template <class List, class Take>
CLI::Option* AddListReader(CLI::App& command, const char* name, size_t limit, Take take, const char* text,
                           const std::string& description)
{
    const auto checkAndTake = [name, limit, take](const List& values) {
        CheckLength(name, values.size(), limit);
        take(values);
    };
    return AddReader<List>(command, name, checkAndTake, text, description);
}

}  // namespace SecurityPrivacyTools
