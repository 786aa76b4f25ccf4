// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "common/json_input.h"
#include "common/standard_files.h"
#include "security_privacy/contract.h"
#include "security_privacy/security_privacy_client.h"
#include "service/database.h"
#include "service/feed.h"
#include "service/options.h"
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
constexpr time_t HOUSEKEEPING_SECONDS = 60;
// Batches of old usage that are dropped before signals are looked at again.
constexpr int MAX_DROPS = 100;
constexpr int LOG_TYPE = 3;
constexpr uint32_t LOG_DOMAIN = 0xD0E0;

void Print(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void Warn(const char* what, const char* why)
{
    VoLogPrint(LOG_TYPE, VARN::LOG_LEVEL_WARN, LOG_DOMAIN, "SERVICE", "%s: %s", what, why);
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
        Warn("cannot drop old usage", error.what());
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
            Print(status.Document());
        } else if (signal > 0) {
            return;
        }
    }
}

int Feed(const Options& options)
{
    Database database(options.databasePath, Database::Use::FEED);
    if (options.task == Task::RECORD) {
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

int Serve(Options options)
{
    const sigset_t signals = BlockSignals();
    const std::string sockets = options.server.directory + "/" + std::to_string(SECURITY_PRIVACY_SA_ID);
    const bool isActivated = ::sd_listen_fds(0) > 0;
    const int statusSocket = HandedStatusSocket();
    Database database(options.databasePath);
    if (IsEmpty(database)) {
        ImportDevice(database, options.inputPath, options.shiftsToNow ? Now() : 0);
    }
    // For the requests of our own.
    ::setenv("VARN_ABILITY_DIR", options.server.directory.c_str(), 1);
    const VARN::sptr<SecurityPrivacyService> service(
        new SecurityPrivacyService(database, {options.changers, options.isReadOnly}));
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
        Warn("nobody can ask for the status or watch requests", error.code().message().c_str());
    }
    Print("ready " + (isActivated ? "(socket from the init system)" : sockets + ".sock"));
    ::sd_notify(0, "READY=1");
    WaitForTheEnd(signals, database, options, status);
    ::sd_notify(0, "STOPPING=1");
    server->Stop();
    Print(status.Document());
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
        VARN::Host::SetLogLevel(VARN::LOG_LEVEL_DEBUG);
    } else if (std::getenv("VARN_LOG_LEVEL") == nullptr) {
        VARN::Host::SetLogLevel(VARN::LOG_LEVEL_INFO);
    }
    try {
        return options->task == Task::SERVE ? Serve(std::move(*options)) : Feed(*options);
    } catch (const InputError& error) {
        std::fprintf(stderr, "security-privacy-service: %s\nSee 'security-privacy-service --help'.\n", error.what());
        return CANNOT_START;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "security-privacy-service: %s\n", error.what());
        return CANNOT_START;
    }
}
