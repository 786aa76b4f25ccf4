// SPDX-License-Identifier: Apache-2.0
#include "service/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <system_error>

namespace SecurityPrivacyExample {
namespace {

constexpr int USAGE_ERROR = 2;
constexpr int MAX_WORKERS = 1024;
constexpr int MAX_CONNECTIONS = 1000000;
constexpr int MAX_REQUEST_BYTES = 128 * 1024 * 1024;
constexpr int MAX_STALL_MS = 3600000;
constexpr int64_t MAX_UID = 4294967294;  // the one above means "nobody in particular" to the kernel

// The data that is installed along with the program, wherever that is.
std::string InstalledDataPath()
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path().parent_path() / "share" / "security-privacy" / "device.json").string();
}

template <class Number>
std::string WithDefault(const std::string& description, Number value)
{
    return description + " [" + std::to_string(value) + "]";
}

void AddOptions(CLI::App& app, Options& options, int64_t& stallTimeoutMs)
{
    app.add_option("--data", options.dataPath,
                   "Device data, JSON: users, apps, groups, usage, policies [that installed with the program]")
        ->option_text("FILE");
    app.add_option("--state", options.statePath,
                   "Keep changes in this file across restarts; without it they live in memory alone")
        ->option_text("FILE");
    app.add_option("--directory", options.server.directory,
                   "Folder of the socket 65993.sock [$VARN_ABILITY_DIR or /run/varn]")
        ->option_text("FOLDER");
    app.add_flag("--shift-to-now", options.shiftsToNow,
                 "Move the usage in time, so that it ends now and \"usage --since 2d\" finds some");

    const char* access = "Who may change something";
    app.add_option("--change-uids", options.changers, "User ids that may change something [root and my own]")
        ->delimiter(',')
        ->option_text("UID,...")
        ->check(CLI::Range(int64_t{0}, MAX_UID))
        ->group(access);
    app.add_flag("--read-only", options.isReadOnly, "Refuse every change, whoever asks")->group(access);

    const char* limits = "Limits";
    app.add_option("--workers", options.server.workers, "Threads that run requests [one a processor, at least 8]")
        ->option_text("N")
        ->check(CLI::Range(1, MAX_WORKERS))
        ->group(limits);
    app.add_option("--max-connections", options.server.maxConnections,
                   WithDefault("Connections at a time", options.server.maxConnections))
        ->option_text("N")
        ->check(CLI::Range(1, MAX_CONNECTIONS))
        ->group(limits);
    app.add_option("--max-connections-per-user", options.server.maxConnectionsPerUser,
                   WithDefault("The same for one user id", options.server.maxConnectionsPerUser))
        ->option_text("N")
        ->check(CLI::Range(1, MAX_CONNECTIONS))
        ->group(limits);
    app.add_option("--max-request-bytes", options.server.maxRequestBytes,
                   WithDefault("Length of a request", options.server.maxRequestBytes))
        ->option_text("N")
        ->check(CLI::Range(1, MAX_REQUEST_BYTES))
        ->group(limits);
    app.add_option("--stall-timeout-ms", stallTimeoutMs,
                   WithDefault("Time from the first byte of a request to its last", stallTimeoutMs))
        ->option_text("N")
        ->check(CLI::Range(1, MAX_STALL_MS))
        ->group(limits);

    app.add_flag("-v,--verbose", options.isVerbose, "Show every log line (level 3) on standard error");
}

}  // namespace

std::optional<Options> ReadOptions(int argc, char** argv, int& exitCode)
{
    Options options;
    options.dataPath = InstalledDataPath();
    int64_t stallTimeoutMs = std::chrono::milliseconds(options.server.stallTimeout).count();
    CLI::App app(
        "The example security-privacy service: answers for the device that a JSON file describes.\n"
        "Prints \"ready\" and the socket on standard output when clients can come.",
        "security-privacy-service");
    app.get_formatter()->column_width(32);
    app.set_help_flag("-h,--help", "Print this and exit");
    AddOptions(app, options, stallTimeoutMs);
    app.footer(
        "\nSignals:\n"
        "  TERM, INT   finish the running requests, print the counters, end with 0\n"
        "  USR1        print the counters: requests, errors, bytes and time by request code\n"
        "\nExit codes:\n"
        "  0  stopped by a signal\n"
        "  1  could not start: data, state or socket; the message says which and why\n"
        "  2  the command line is wrong\n"
        "\nResult codes are listed by 'security-privacy-cli --help'.\n"
        "\nExample:\n"
        "  mkdir -m 0700 /tmp/try && security-privacy-service --directory /tmp/try --state /tmp/try/state.json &\n"
        "  security-privacy-cli --directory /tmp/try groups by-app com.example.camera");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("security-privacy-service: ") + error.what() + "\nSee 'security-privacy-service --help'.\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error) == 0 ? 0 : USAGE_ERROR;
        return std::nullopt;
    }
    options.server.stallTimeout = std::chrono::milliseconds(stallTimeoutMs);
    if (options.changers.empty()) {
        options.changers = {0, ::geteuid()};
    }
    return options;
}

}  // namespace SecurityPrivacyExample
