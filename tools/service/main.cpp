// SPDX-License-Identifier: Apache-2.0
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string>
#include <utility>

#include "common/json_input.h"
#include "common/standard_files.h"
#include "security_privacy/contract.h"
#include "service/database.h"
#include "service/device_import.h"
#include "service/options.h"
#include "service/request_counters.h"
#include "service/security_privacy_service.h"
#include "service/usage_recorder.h"
#include "varn/host/ability_server.h"
#include "varn/host/log_sink.h"

namespace {

using namespace SecurityPrivacyExample;

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::SECURITY_PRIVACY_SA_ID;
constexpr int VERBOSE_LEVEL = 3;
constexpr int CANNOT_START = 1;
constexpr time_t HOUSEKEEPING_SECONDS = 60;

// The signals that the main thread waits for. Blocked before any other thread exists, they interrupt none.
sigset_t BlockSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // Whoever reads our output may go away; that is no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    return signals;
}

int64_t Now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// What has to be done now and then while the server runs. It must not end the program: a disk may be full for a while.
void DropOldUsage(Database& database, const Options& options)
{
    try {
        while (options.keepUsage.count() != 0 && DropUsageBefore(database, Now() - options.keepUsage.count()) != 0) {
        }
    } catch (const DatabaseError& error) {
        std::fprintf(stderr, "security-privacy-service: cannot drop old usage: %s\n", error.what());
    }
}

void WaitForTheEnd(const sigset_t& signals, Database& database, const Options& options, const RequestCounters& counters)
{
    for (;;) {
        DropOldUsage(database, options);
        const timespec pause = {HOUSEKEEPING_SECONDS, 0};
        const int signal = ::sigtimedwait(&signals, nullptr, &pause);
        if (signal == SIGUSR1) {
            counters.Print(stdout);
        } else if (signal > 0) {
            return;
        }
    }
}

int Import(const Options& options)
{
    Database database(options.databasePath, Database::Use::FEED);
    const ImportCounts counts = ImportDevice(database, options.inputPath, options.shiftsToNow ? Now() : 0);
    std::printf("imported %" PRId64 " apps and %" PRId64 " new usage events; dropped %" PRId64
                " choices that are not offered any more\n",
                counts.apps, counts.usageEvents, counts.droppedChoices);
    return 0;
}

int Record(const Options& options)
{
    Database database(options.databasePath, Database::Use::FEED);
    std::printf("recorded %" PRId64 " usage events\n", RecordUsage(database, options.inputPath));
    return 0;
}

// Where clients find the service, as AbilityServer decides it. To be asked before that starts: it consumes the
// variables of socket activation.
std::string SocketName(const Options& options)
{
    const char* listenPid = std::getenv("LISTEN_PID");
    if (listenPid != nullptr && listenPid == std::to_string(::getpid())) {
        return "(socket from the init system)";
    }
    std::string directory = options.server.directory;
    if (directory.empty()) {
        const char* fromEnvironment = secure_getenv("VARN_ABILITY_DIR");
        directory = fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : "/run/varn";
    }
    return directory + "/" + std::to_string(SECURITY_PRIVACY_SA_ID) + ".sock";
}

int Serve(Options options, const sigset_t& signals)
{
    const std::string socketName = SocketName(options);
    Database database(options.databasePath);
    if (IsEmpty(database)) {
        ImportDevice(database, options.inputPath, options.shiftsToNow ? Now() : 0);
    }
    const VARN::sptr<SecurityPrivacyService> service(
        new SecurityPrivacyService(database, {options.changers, options.isReadOnly}));
    RequestCounters counters;
    options.server.observer = [&](const VARN::Host::Transaction& transaction) { counters.Count(transaction); };
    VARN::Host::AbilityServer server(SECURITY_PRIVACY_SA_ID, service, options.server);
    if (!server.Start()) {
        std::fprintf(stderr, "security-privacy-service: cannot serve, see the error line above\n");
        return CANNOT_START;
    }
    std::printf("ready %s\n", socketName.c_str());
    std::fflush(stdout);
    WaitForTheEnd(signals, database, options, counters);
    server.Stop();
    counters.Print(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    OccupyStandardDescriptors();
    int exitCode = 0;
    std::optional<Options> options = ReadOptions(argc, argv, exitCode);
    if (!options) {
        return exitCode;
    }
    if (options->isVerbose) {
        VARN::Host::SetLogLevel(VERBOSE_LEVEL);
    } else if (::getenv("VARN_LOG_LEVEL") == nullptr) {
        // Who runs a service wants to see when it starts and stops; the library by itself tells only what went wrong.
        VARN::Host::SetLogLevel(VARN::LOG_LEVEL_INFO);
    }
    try {
        switch (options->task) {
            case Task::IMPORT:
                return Import(*options);
            case Task::RECORD:
                return Record(*options);
            case Task::SERVE:
                break;
        }
        return Serve(std::move(*options), BlockSignals());
    } catch (const InputError& error) {
        std::fprintf(stderr, "security-privacy-service: %s\nSee 'security-privacy-service --help'.\n", error.what());
        return CANNOT_START;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "security-privacy-service: %s\n", error.what());
        return CANNOT_START;
    }
}
