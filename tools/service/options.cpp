// SPDX-License-Identifier: Apache-2.0
#include "service/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "security_privacy/version.h"

namespace SecurityPrivacyTools {
namespace {

constexpr int USAGE_ERROR = 2;
constexpr int64_t MAX_UID = 4294967294;  // the one above means "nobody in particular" to the kernel
constexpr int64_t MAX_KEEP_SECONDS = int64_t{100} * 366 * 86400;

// The data that is installed along with the program, wherever that is.
std::string InstalledDataPath()
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path().parent_path() / "share" / "security-privacy" / "device.json").string();
}

void AddOptions(CLI::App& app, Options& options)
{
    const auto add = [&](const char* name, auto& value, const char* operand, const std::string& description) {
        return app.add_option(name, value, description)->option_text(operand);
    };
    add("--database", options.databasePath, "FILE",
        "Keep the device in this SQLite database, made if there is none; without it, in memory alone");
    add("--data", options.inputPath, "FILE",
        "Device data, JSON, that fills an empty database [that installed with the program]");
    add("--directory", options.server.directory, "FOLDER",
        "Folder of the sockets 65993.sock and 65993.status.sock [$VARN_ABILITY_DIR or /run/varn]");
    app.add_flag("--shift-to-now", options.shiftsToNow,
                 "Move the usage of the device data in time, so that it ends now and \"usage --since 2d\" finds some");
    const std::map<std::string, int64_t> units{{"m", 60}, {"h", 3600}, {"d", 86400}};
    add("--keep-usage", options.keepUsageSeconds, "TIME", "Drop usage that began longer ago: 90m, 12h, 30d [keep all]")
        ->transform(CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::UNIT_REQUIRED, "TIME") &
                    CLI::Range(int64_t{1}, MAX_KEEP_SECONDS));

    const char* access = "Who may change something";
    add("--change-uids", options.changers, "UID,...", "User ids that may change something [root and my own]")
        ->delimiter(',')
        ->check(CLI::Range(int64_t{0}, MAX_UID))
        ->group(access);
    app.add_flag("--read-only", options.isReadOnly, "Refuse every change, whoever asks")->group(access);
    app.add_flag("-v,--verbose", options.isVerbose, "Show every log line on standard error");

    const auto addLimit = [&](const char* name, auto& value, int64_t max, const std::string& description) {
        const std::string standard = value != 0 ? " [" + std::to_string(value) + "]" : "";
        add(name, value, "N", description + standard)->check(CLI::Range(int64_t{1}, max))->group("Limits");
    };
    VARN::Host::AbilityServerOptions& server = options.server;
    addLimit("--workers", server.workers, 1024, "Threads that run requests [one a processor, at least 8]");
    addLimit("--max-connections", server.maxConnections, 1000000, "Connections at a time");
    addLimit("--max-connections-per-user", server.maxConnectionsPerUser, 1000000, "The same for one user id");
    addLimit("--max-request-bytes", server.maxRequestBytes, int64_t{128} * 1024 * 1024, "Length of a request");
    addLimit("--stall-timeout-ms", options.stallTimeoutMs, 3600000,
             "Time from the first byte of a request to its last");
}

void AddTasks(CLI::App& app, Options& options)
{
    const auto add = [&](Task task, const char* name, const char* description, const char* input) {
        CLI::App* command = app.add_subcommand(name, description);
        command->add_option("--database", options.databasePath, "The database")->option_text("FILE")->required();
        command->add_option("FILE", options.inputPath, input)->required()->option_text(" ");
        command->callback([&options, task] { options.task = task; });
        return command;
    };
    add(Task::IMPORT, "import", "Make a database say what a device file says; also while the service runs",
        "Device data, JSON")
        ->add_flag("--shift-to-now", options.shiftsToNow, "Move its usage in time, so that it ends now");
    add(Task::RECORD, "record", "Append usage events to a database; also while the service runs",
        "One JSON object a line, as in the usageEvents of device data; - is standard input");
}

}  // namespace

std::optional<Options> ReadOptions(int argc, char** argv, int& exitCode)
{
    Options options;
    options.inputPath = InstalledDataPath();
    options.stallTimeoutMs = options.server.stallTimeout.count();
    CLI::App app(
        "The security-privacy service: answers for the device in its database.\n"
        "Prints \"ready\" and the socket on standard output when clients can come.",
        "security-privacy-service");
    app.get_formatter()->column_width(32);
    app.set_help_flag("-h,--help", "Print this and exit");
    app.set_version_flag("--version", "security-privacy-service " SECURITY_PRIVACY_VERSION,
                         "Print the version and exit");
    AddOptions(app, options);
    AddTasks(app, options);
    app.require_subcommand(0, 1);
    app.footer(
        "\nSignals:\n"
        "  TERM, INT   finish the running requests, print the status, end with 0\n"
        "  USR1        print the status: one JSON document, as 'security-privacy-cli status --json' gives it\n"
        "\nExit codes:\n"
        "  0  stopped by a signal; or imported, recorded\n"
        "  1  could not start: data, database or socket; or nothing of a batch was stored; the message says why\n"
        "  2  the command line is wrong\n"
        "\nResult codes are listed by 'security-privacy-cli --help'.\n"
        "\nExample:\n"
        "  mkdir -m 0700 ~/try && security-privacy-service --directory ~/try --database ~/try/device.db &\n"
        "  security-privacy-cli --directory ~/try groups by-app com.example.camera");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("security-privacy-service: ") + error.what() + "\nSee 'security-privacy-service --help'.\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error) == 0 ? 0 : USAGE_ERROR;
        return std::nullopt;
    }
    if (options.server.directory.empty()) {
        const char* environment = ::secure_getenv("VARN_ABILITY_DIR");
        options.server.directory = environment != nullptr && *environment != '\0' ? environment : "/run/varn";
    }
    options.server.stallTimeout = std::chrono::milliseconds(options.stallTimeoutMs);
    if (options.changers.empty()) {
        options.changers = {0, ::geteuid()};
    }
    return options;
}

}  // namespace SecurityPrivacyTools
