// SPDX-License-Identifier: Apache-2.0
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>

#include "common/json_input.h"
#include "common/standard_files.h"
#include "service/device_data.h"
#include "service/device_store.h"
#include "service/options.h"
#include "service/request_counters.h"
#include "service/security_privacy_service.h"
#include "varn/host/ability_server.h"
#include "varn/host/log_sink.h"

namespace {

using namespace SecurityPrivacyExample;

constexpr int32_t SYSTEM_ABILITY_ID = 65993;
constexpr int VERBOSE_LEVEL = 3;
constexpr int CANNOT_START = 1;

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

void WaitForTheEnd(const sigset_t& signals, const RequestCounters& counters)
{
    int signal = 0;
    while (sigwait(&signals, &signal) == 0 && signal == SIGUSR1) {
        counters.Print(stdout);
    }
}

DeviceData LoadDevice(const Options& options)
{
    DeviceData device = LoadDeviceData(options.dataPath);
    if (options.shiftsToNow) {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        ShiftUsage(device, std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    }
    return device;
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
    return directory + "/" + std::to_string(SYSTEM_ABILITY_ID) + ".sock";
}

int Serve(Options options, const sigset_t& signals)
{
    const std::string socketName = SocketName(options);
    DeviceStore store(LoadDevice(options), options.statePath);
    const VARN::sptr<SecurityPrivacyService> service(
        new SecurityPrivacyService(store, AccessPolicy(options.changers, options.isReadOnly)));
    RequestCounters counters;
    options.server.observer = [&](const VARN::Host::Transaction& transaction) { counters.Count(transaction); };
    VARN::Host::AbilityServer server(SYSTEM_ABILITY_ID, service, options.server);
    if (!server.Start()) {
        std::fprintf(stderr, "security-privacy-service: cannot serve, see the error line above\n");
        return CANNOT_START;
    }
    std::printf("ready %s\n", socketName.c_str());
    std::fflush(stdout);
    WaitForTheEnd(signals, counters);
    server.Stop();
    counters.Print(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    OccupyStandardDescriptors();
    const sigset_t signals = BlockSignals();
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
        return Serve(std::move(*options), signals);
    } catch (const InputError& error) {
        std::fprintf(stderr, "security-privacy-service: %s\nSee 'security-privacy-service --help'.\n", error.what());
        return CANNOT_START;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "security-privacy-service: %s\n", error.what());
        return CANNOT_START;
    }
}
