// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "cli/output.h"

namespace SecurityPrivacyTools {

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

// Refuses a list that is longer than a request carries, since the rest would be dropped or the request refused.
inline void CheckLength(const std::string& what, size_t length, size_t limit)
{
    if (length > limit) {
        throw Failure(EXIT_USAGE, what + ": " + std::to_string(length) + " values, a request carries at most " +
                                      std::to_string(limit));
    }
}

// Adds an option, or with a name in capitals an argument that has to be there; `take` gets its value, a list only when
// it is not longer than `limit`. `text` says what the value is: where that is "a|b", FILE or FOLDER, shells offer it.
// One that may be repeated takes one value each time, so that it never swallows what follows.
template <class T, class Take>
CLI::Option* AddReader(CLI::App& command, const char* name, Take take, const char* text, const std::string& description,
                       size_t limit = SIZE_MAX)
{
    const auto checkAndTake = [=](const T& value) {
        if constexpr (std::is_class_v<T>) {
            CheckLength(name, value.size(), limit);
        }
        take(value);
    };
    CLI::Option* option = command.add_option_function<T>(name, checkAndTake, description)->option_text(text);
    return option->get_positional() ? option->required() : option->allow_extra_args(false);
}

// The same for an option that is kept as it is.
template <class T>
CLI::Option* AddOption(CLI::App& command, const char* name, T& value, const char* text, const std::string& description,
                       size_t limit = SIZE_MAX)
{
    const auto keep = [&value](const T& given) { value = given; };
    return AddReader<T>(command, name, keep, text, description, limit);
}

}  // namespace SecurityPrivacyTools
