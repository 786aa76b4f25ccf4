// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "cli/output.h"
#include "cli/program.h"
#include "cli/remote_service.h"
#include "common/json_input.h"
#include "common/result_codes.h"
#include "common/standard_files.h"
#include "security_privacy/version.h"

namespace {

using namespace SecurityPrivacyTools;

constexpr int32_t MAX_WAIT_SECONDS = 600;

std::string Manual()
{
    std::string manual =
        "\nTIME is local: 2026-11-20, 2026-11-20T10:00, today, 10:00 (of today); or with an offset behind it, Z or\n"
        "+01:00; or 2h, 7d, 1d12h (so long ago), @SECONDS or milliseconds since 1970. A span ends before its end.\n"
        "\nExit codes:\n"
        "  0  the service did what was asked\n"
        "  1  the service answered with a result code, see below\n"
        "  2  the command line, or a file that it names, is wrong; nothing was sent\n"
        "  3  the service cannot be reached\n"
        "  4  the service refuses this user\n"
        "  5  the connection was lost, the answer took too long, or one side did not understand the other\n"
        "\nResult codes of the service:\n";
    for (const auto& [code, name, meaning] : RESULT_CODES) {
        manual += "  " + std::to_string(code) + "  " + Padded(name, 25) + " " + meaning + "\n";
    }
    return manual +
           "\nExample:\n"
           "  security-privacy-cli groups by-app com.example.camera\n"
           "  security-privacy-cli usage timeline --since 2d --chart\n";
}

void AddCommonOptions(CLI::App& app, Program& program)
{
    app.set_help_flag("-h,--help", "Print this and exit; every command has its own");
    app.set_version_flag("--version", "security-privacy-cli " SECURITY_PRIVACY_VERSION, "Print the version and exit");
    app.add_flag("--json", program.isJson, "Print JSON in place of tables; a failure is an object \"error\"");
    const auto setCompact = [&program] { program.isJson = program.isCompact = true; };
    app.add_flag_callback("--compact", setCompact, "Print JSON without line breaks");
    app.add_flag("-v,--verbose", program.isVerbose, "Show the log lines of library and platform on standard error");
    // An empty one leaves what the variable says.
    const auto setFolder = [](const std::string& folder) {
        ::setenv(DIRECTORY_VARIABLE, folder.c_str(), folder.empty() ? 0 : 1);
    };
    AddReader<std::string>(app, "--directory", setFolder, "FOLDER",
                           "Folder of the service's socket [$VARN_ABILITY_DIR or /run/varn]");
    AddOption(app, "--wait", program.waitSeconds, "SECONDS", "How long to wait for a service that is not there yet [4]")
        ->check(CLI::Range(0, MAX_WAIT_SECONDS));
}

int Report(const Program& program, const Failure& failure)
{
    std::fflush(stdout);
    // Lines are ours, what stands in them may be anybody's.
    std::istringstream lines(failure.what());
    std::string message;
    for (std::string line; std::getline(lines, line);) {
        message += (message.empty() ? "" : "\n") + VisibleText(line);
    }
    std::fprintf(stderr, "security-privacy-cli: %s\n", message.c_str());
    if (program.isJson) {
        const Json error = {
            {"exitCode", failure.exitCode}, {"code", failure.code}, {"name", failure.name}, {"message", message}};
        PrintResult(program, {{"error", error}}, "");
    }
    return failure.exitCode;
}

// Help that was asked for, or what is wrong with the command line and where the manual of that command is.
int Explain(const CLI::App& app, Program& program, const CLI::ParseError& error, int argc, char** argv)
{
    if (error.get_exit_code() == 0) {
        return app.exit(error);
    }
    // The parser may have stopped before it came to the flags.
    const auto isGiven = [=](std::string_view flag) { return std::find(argv + 1, argv + argc, flag) != argv + argc; };
    program.isCompact = isGiven("--compact");
    program.isJson = program.isCompact || isGiven("--json");
    const CLI::App* command = &app;
    std::string path = app.get_name();
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().back();
        path += " " + command->get_name();
    }
    const std::vector<std::string> unread = app.remaining(true);
    const bool isCommandWrong = !command->get_subcommands(nullptr).empty();
    const std::string what = !isCommandWrong  ? error.what()
                             : unread.empty() ? "a command is missing"
                                              : "\"" + unread.front() + "\" is no command";
    return Report(program, Failure(EXIT_USAGE, VisibleText(what) + "\nSee '" + path + " --help'."));
}

}  // namespace

int main(int argc, char** argv)
{
    OccupyStandardDescriptors();
    // For the width of characters alone; names are UTF-8, whatever the user's language.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    Program program;
    CLI::App app("Asks the security-privacy service: permission groups of apps, what was used when, GToken policies.",
                 "security-privacy-cli");
    try {
        app.get_formatter()->column_width(34);
        app.require_subcommand(1);
        // Common options may stand behind the command as well.
        app.fallthrough();
        AddCommonOptions(app, program);
        // Of every command.
        app.footer(
            "\nCommon options (--json, --compact, --directory, --wait, --verbose), TIME and exit codes:\n"
            "  security-privacy-cli --help\n");
        AddGroupsCommands(app, program);
        AddUsageCommands(app, program);
        AddGTokenCommands(app, program);
        AddServiceCommands(app, program);
        app.footer(Manual());
        app.parse(argc, argv);
        FinishOutput();
        return EXIT_OK;
    } catch (const CLI::ParseError& error) {
        return Explain(app, program, error, argc, argv);
    } catch (const InputError& error) {
        return Report(program, Failure(EXIT_USAGE, VisibleText(error.what())));
    } catch (const Failure& failure) {
        return Report(program, failure);
    } catch (const std::exception& error) {
        return Report(program, Failure(EXIT_BROKEN, error.what()));
    }
}
