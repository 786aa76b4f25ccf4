// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "common/json_input.h"
#include "common/standard_files.h"
#include "security_privacy/contract.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/version.h"
#include "service/database.h"
#include "service/feed.h"
#include "service/security_privacy_service.h"
#include "service/status.h"
#include "varn/host/ability_server.h"
#include "varn/host/log_sink.h"
#include "varn/log.h"

namespace {

using namespace SecurityPrivacyTools;

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::SECURITY_PRIVACY_SA_ID;
using Client = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyClient;
using Service = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceIntf;

constexpr int CANNOT_START = 1;
constexpr int USAGE_ERROR = 2;
constexpr int64_t MAX_UID = 4294967294;  // the one above means "nobody in particular" to the kernel
constexpr int64_t MAX_KEEP_SECONDS = int64_t{100} * 366 * 86400;
constexpr time_t HOUSEKEEPING_SECONDS = 60;
// Batches of old usage that are dropped before signals are looked at again.
constexpr int MAX_DROPS = 100;

// What the command line says.
struct Options {
    std::string databasePath;  // empty: in memory, forgotten at the end
    std::string inputPath;     // device data, or the events to record ("-": standard input)
    bool shiftsToNow = false;
    int64_t keepUsageSeconds = 0;  // 0: for ever
    bool isReadOnly = false;
    std::set<uid_t> changers{0, ::geteuid()};
    bool isVerbose = false;
    int64_t stallTimeoutMs = 0;  // also in `server`
    VARN::Host::AbilityServerOptions server;
};

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
    const auto add = [&](const char* name, const char* description, const char* input) {
        CLI::App* command = app.add_subcommand(name, description);
        command->add_option("--database", options.databasePath, "The database")->option_text("FILE")->required();
        command->add_option("FILE", options.inputPath, input)->required()->option_text(" ");
        return command;
    };
    add("import", "Make a database say what a device file says; also while the service runs", "Device data, JSON")
        ->add_flag("--shift-to-now", options.shiftsToNow, "Move its usage in time, so that it ends now");
    add("record", "Append usage events to a database; also while the service runs",
        "One JSON object a line, as in the usageEvents of device data; - is standard input");
}

// Throws CLI::ParseError when help was asked for or there is a mistake.
void ReadOptions(CLI::App& app, Options& options, int argc, char** argv)
{
    options.inputPath = InstalledDataPath();
    options.stallTimeoutMs = options.server.stallTimeout.count();
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
    app.parse(argc, argv);
    if (options.server.directory.empty()) {
        const char* environment = ::secure_getenv("VARN_ABILITY_DIR");
        options.server.directory = environment != nullptr && *environment != '\0' ? environment : "/run/varn";
    }
    options.server.stallTimeout = std::chrono::milliseconds(options.stallTimeoutMs);
}

// The signals that the main thread waits for. Blocked before any other thread exists, they interrupt none.
sigset_t BlockSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // The reader of our output may go away; that is no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    return signals;
}

// What has to be done now and then while the server runs. It must not end the program: a disk may be full for a while.
void DropOldUsage(Database& database, const Options& options)
{
    try {
        const int64_t oldest = Now() - options.keepUsageSeconds * 1000;
        for (int batch = 0; options.keepUsageSeconds != 0 && batch < MAX_DROPS; ++batch) {
            if (DropUsageBefore(database, oldest) == 0) {
                return;
            }
        }
    } catch (const DatabaseError& error) {
        VoLogPrint(LOG_TYPE, VARN::LOG_LEVEL_WARN, LOG_DOMAIN, LOG_TAG, "cannot drop old usage: %s", error.what());
    }
}

// Whether a request of our own gets through, from the socket to the database and back.
bool IsAnswering()
{
    PermissionUsageRecordQuery query;
    query.SetLimit(1);
    bool isAnswering = false;
    Client::GetInstance().WithSystemAbilityProxy([&](const VARN::sptr<Service>& service) {
        std::vector<PermissionUsageRecord> records;
        isAnswering = service && service->GetPermissionUsageTimeline(query, records) == 0;
    });
    return isAnswering;
}

void WaitForTheEnd(const sigset_t& signals, Database& database, const Options& options, const Status& status)
{
    uint64_t watchdogMicroseconds = 0;
    const bool isWatched = ::sd_watchdog_enabled(0, &watchdogMicroseconds) > 0;
    // A third of the time leaves room for a request that is slow.
    const auto seconds = static_cast<time_t>(std::max<uint64_t>(watchdogMicroseconds / 3000000, 1));
    const timespec pause = {isWatched ? std::min(seconds, HOUSEKEEPING_SECONDS) : HOUSEKEEPING_SECONDS, 0};
    for (;;) {
        if (isWatched && IsAnswering()) {
            ::sd_notify(0, "WATCHDOG=1");
        }
        DropOldUsage(database, options);
        const int signal = ::sigtimedwait(&signals, nullptr, &pause);
        if (signal == SIGUSR1) {
            std::puts(status.Document().c_str());
        } else if (signal > 0) {
            return;
        }
    }
}

int Feed(const CLI::App& app, const Options& options)
{
    Database database(options.databasePath, Database::Use::FEED);
    if (app.got_subcommand("record")) {
        std::printf("recorded %" PRId64 " usage events\n", RecordUsage(database, options.inputPath));
        return 0;
    }
    const ImportCounts counts = ImportDevice(database, options.inputPath, options.shiftsToNow ? Now() : 0);
    std::printf("imported %" PRId64 " apps and %" PRId64 " new usage events; dropped %" PRId64
                " choices that are not offered any more\n",
                counts.apps, counts.usageEvents, counts.droppedChoices);
    return 0;
}

// The socket that the init system handed over under the name "status", or -1. To be asked before the server starts: it
// consumes the variables of socket activation.
int HandedStatusSocket()
{
    char** names = nullptr;
    const int count = ::sd_listen_fds_with_names(0, &names);
    int found = -1;
    for (int index = 0; index < count; ++index) {
        const int descriptor = SD_LISTEN_FDS_START + index;
        if (std::strcmp(names[index], "status") == 0 && ::sd_is_socket(descriptor, AF_UNIX, SOCK_STREAM, 1) > 0) {
            found = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
        }
        std::free(names[index]);
    }
    std::free(names);
    return found;
}

int Serve(Options& options)
{
    const sigset_t signals = BlockSignals();
    const std::string sockets = options.server.directory + "/" + std::to_string(SECURITY_PRIVACY_SA_ID);
    const bool isActivated = ::sd_listen_fds(0) > 0;
    const int statusSocket = HandedStatusSocket();
    Database database(options.databasePath);
    bool isEmpty = false;
    database.Read([&](Connection& connection) {
        isEmpty = connection.execAndGet("SELECT NOT EXISTS (SELECT 1 FROM user)").getInt() != 0;
    });
    if (isEmpty) {
        ImportDevice(database, options.inputPath, options.shiftsToNow ? Now() : 0);
    }
    // For the requests of our own.
    ::setenv("VARN_ABILITY_DIR", options.server.directory.c_str(), 1);
    const VARN::sptr<SecurityPrivacyService> service(
        new SecurityPrivacyService(database, options.changers, options.isReadOnly));
    std::optional<VARN::Host::AbilityServer> server;
    Status status([&] { return server->Statistics(); });
    options.server.observer = [&](const VARN::Host::Transaction& transaction) { status.Count(transaction); };
    server.emplace(SECURITY_PRIVACY_SA_ID, service, options.server);
    if (!server->Start()) {
        std::fprintf(stderr, "security-privacy-service: cannot serve, see the error line above\n");
        return CANNOT_START;
    }
    try {
        status.Serve(statusSocket, sockets + ".status.sock");
    } catch (const std::system_error& error) {
        VoLogPrint(LOG_TYPE, VARN::LOG_LEVEL_WARN, LOG_DOMAIN, LOG_TAG,
                   "nobody can ask for the status or watch requests: %s", error.code().message().c_str());
    }
    std::puts(("ready " + (isActivated ? "(socket from the init system)" : sockets + ".sock")).c_str());
    ::sd_notify(0, "READY=1");
    WaitForTheEnd(signals, database, options, status);
    ::sd_notify(0, "STOPPING=1");
    server->Stop();
    std::puts(status.Document().c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    OccupyStandardDescriptors();
    // Who reads a pipe sees each line at once.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    Options options;
    CLI::App app(
        "The security-privacy service: answers for the device in its database.\n"
        "Prints \"ready\" and the socket on standard output when clients can come.",
        "security-privacy-service");
    try {
        ReadOptions(app, options, argc, argv);
        if (options.isVerbose || std::getenv("VARN_LOG_LEVEL") == nullptr) {
            VARN::Host::SetLogLevel(options.isVerbose ? VARN::LOG_LEVEL_DEBUG : VARN::LOG_LEVEL_INFO);
        }
        return app.get_subcommands().empty() ? Serve(options) : Feed(app, options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : USAGE_ERROR;
    } catch (const InputError& error) {
        return app.exit(CLI::Error("InputError", error.what(), CANNOT_START));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "security-privacy-service: %s\n", error.what());
        return CANNOT_START;
    }
}
