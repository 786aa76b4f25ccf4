// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "cli/output.h"
#include "cli/program.h"
#include "common/json_input.h"
#include "common/result_codes.h"
#include "common/standard_files.h"

namespace {

using namespace SecurityPrivacyExample;

constexpr int32_t MAX_WAIT_SECONDS = 600;

std::string Manual()
{
    std::string manual =
        "\nTimes: 2026-11-20, 2026-11-20T10:00 (local time, or UTC with a Z behind it), 2h, 7d, 1d12h (so long ago),\n"
        "or milliseconds since the epoch.\n"
        "\nExit codes:\n"
        "  0  the service did what was asked\n"
        "  1  the service answered with a result code, see below\n"
        "  2  the command line, or a file that it names, is wrong; nothing was sent\n"
        "  3  the service cannot be reached\n"
        "  4  the service refuses this user\n"
        "  5  the connection was lost, the answer took too long, or one side did not understand the other\n"
        "\nResult codes of the service:\n";
    for (int32_t code = RESULT_UNKNOWN_USER; ResultCodeName(code) != nullptr; ++code) {
        char line[160];
        std::snprintf(line, sizeof(line), "  %d  %-25s %s\n", code, ResultCodeName(code), ResultCodeMeaning(code));
        manual += line;
    }
    return manual +
           "\nExample:\n"
           "  security-privacy-cli groups by-app com.example.camera\n"
           "  security-privacy-cli usage timeline --since 2d --chart\n";
}

void AddCommonOptions(CLI::App& app, Program& program)
{
    app.set_help_flag("-h,--help", "Print this and exit; every command has its own");
    app.add_flag("--json", program.isJson, "Print JSON in place of tables; a failure is an object \"error\"");
    app.add_flag("-v,--verbose", program.connection.isVerbose,
                 "Show the log lines of library and platform on standard error");
    app.add_option("--directory", program.connection.directory,
                   "Folder of the service's socket [$VARN_ABILITY_DIR or /run/varn]")
        ->option_text("FOLDER");
    app.add_option("--wait", program.connection.waitSeconds, "How long to wait for a service that is not there yet [4]")
        ->option_text("SECONDS")
        ->check(CLI::Range(0, MAX_WAIT_SECONDS));
}

// What is wrong with the command line, and where the manual of that command is.
std::string ExplainParseError(const CLI::App* app, const CLI::Error& error)
{
    const std::vector<std::string> unread = app->remaining(true);
    std::string path = app->get_name();
    const CLI::App* command = app;
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().back();
        path += " " + command->get_name();
    }
    std::string what = error.what();
    if (!command->get_subcommands(nullptr).empty()) {
        what = unread.empty() ? "a command is missing" : "\"" + Visible(unread.front()) + "\" is no command";
    }
    return "security-privacy-cli: " + what + "\nSee '" + path + " --help'.\n";
}

int Report(const Program& program, const Failure& failure)
{
    std::fflush(stdout);
    std::fprintf(stderr, "security-privacy-cli: %s\n", failure.what());
    if (program.isJson) {
        PrintJson({{"error",
                    {{"exitCode", static_cast<int>(failure.GetExitCode())},
                     {"code", failure.GetCode()},
                     {"name", failure.GetName()},
                     {"message", failure.what()}}}});
        std::fflush(stdout);
    }
    return failure.GetExitCode();
}

int Run(const Program& program)
{
    try {
        const Connection connection(program.connection);
        program.run(connection);
        FinishOutput();
        return EXIT_OK;
    } catch (const Failure& failure) {
        return Report(program, failure);
    } catch (const InputError& error) {
        return Report(program, Failure(EXIT_USAGE, error.what()));
    }
}

}  // namespace

int main(int argc, char** argv)
{
    OccupyStandardDescriptors();
    try {
        Program program;
        CLI::App app(
            "Asks the security-privacy service: permission groups of apps, what was used when, GToken policies.",
            "security-privacy-cli");
        app.get_formatter()->column_width(34);
        app.require_subcommand(1);
        // Common options may stand behind the command as well.
        app.fallthrough();
        AddCommonOptions(app, program);
        AddGroupsCommands(app, program);
        AddUsageCommands(app, program);
        AddGTokenCommands(app, program);
        AddPingCommand(app, program);
        app.footer(Manual());
        app.failure_message(ExplainParseError);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
        }
        return Run(program);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "security-privacy-cli: %s\n", error.what());
        return EXIT_BROKEN;
    }
}

void SecurityPrivacyExample::CheckLength(const char* option, size_t length, size_t limit)
{
    if (length > limit) {
        throw Failure(EXIT_USAGE, std::string(option) + ": " + std::to_string(length) +
                                      " values, a request carries at most " + std::to_string(limit));
    }
}
