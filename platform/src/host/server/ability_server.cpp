// SPDX-License-Identifier: Apache-2.0
#include "varn/host/ability_server.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "host/base/process.h"
#include "host/server/engine.h"
#include "host/server/heap.h"
#include "host/wire/socket_folder.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// So that a few slow operations do not stop the others, however few processors there are.
constexpr size_t LEAST_WORKERS = 8;

// Of the descriptors that the process may open, these are for the service's own files, and for the server's.
constexpr size_t RESERVED_DESCRIPTORS = 64;
constexpr size_t RESERVED_PART = 4;

constexpr std::chrono::milliseconds LONGEST_TIME = std::chrono::hours(24 * 365);

AbilityServerOptions FillDefaults(AbilityServerOptions options)
{
    using Options = AbilityServerOptions;
    Options defaults;
    defaults.workers = std::max<size_t>(std::thread::hardware_concurrency(), LEAST_WORKERS);
    if (options.directory.empty()) {
        options.directory = ReadSocketDirectory();
    }
    for (const auto number : {&Options::workers, &Options::maxConnections, &Options::maxConnectionsPerUser,
                              &Options::maxRequestBytes, &Options::maxWaitingReplyBytesPerUser,
                              &Options::maxBegunRequestBytesPerUser, &Options::maxBytes, &Options::maxSpareWorkers}) {
        options.*number = options.*number != 0 ? options.*number : defaults.*number;
    }
    for (const auto time : {&Options::stallTimeout, &Options::replyTimeout, &Options::stuckAfter}) {
        options.*time = options.*time != std::chrono::milliseconds(0) ? options.*time : defaults.*time;
        // A time point that far away must still be one.
        options.*time = std::clamp(options.*time, std::chrono::milliseconds(1), LONGEST_TIME);
    }
    return options;
}

// Without descriptors for its connections a server could accept none, and its service could open no file.
AbilityServerOptions FitToDescriptors(int32_t id, AbilityServerOptions options)
{
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return options;
    }
    const size_t allowed = limit.rlim_cur;
    const size_t most = std::max<size_t>(allowed - std::min(RESERVED_DESCRIPTORS, allowed / RESERVED_PART), 1);
    if (options.maxConnections > most) {
        PLATFORM_WARN("service %d: at most %zu connections instead of %zu, since the process may open %zu descriptors",
                      id, most, options.maxConnections, allowed);
        options.maxConnections = most;
    }
    return options;
}

}  // namespace

AbilityServer::AbilityServer(int32_t id, sptr<IPCObjectStub> stub, AbilityServerOptions options)
    : id_(id), stub_(std::move(stub)), options_(FillDefaults(std::move(options))), generation_(ProcessGeneration())
{
}

AbilityServer::~AbilityServer()
{
    Stop();
    if (generation_ != ProcessGeneration()) {
        // The threads are the parent's, and so are the files: nothing of it may be touched.
        static_cast<void>(engine_.release());
    }
}

bool AbilityServer::Start()
{
    if (generation_ != ProcessGeneration()) {
        PLATFORM_ERROR("service %d cannot be started: the server belongs to the process that forked this one", id_);
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string problem;
    if (engine_) {
        problem = "it is already running";
    } else if (!stub_) {
        problem = "the object is null";
    } else {
        PrepareHeap();
        auto engine = std::make_unique<Engine>(*this, FitToDescriptors(id_, options_));
        problem = engine->Start();
        if (problem.empty()) {
            const std::lock_guard<std::mutex> engineLock(engineMutex_);
            engine_ = std::move(engine);
        }
    }
    if (!problem.empty()) {
        PLATFORM_ERROR("service %d cannot be started: %s", id_, problem.c_str());
    }
    return problem.empty();
}

void AbilityServer::Stop()
{
    if (generation_ != ProcessGeneration()) {
        return;
    }
    if (Engine::IsThreadOf(*this)) {
        PLATFORM_ERROR("service %d cannot be stopped from inside one of its own operations", id_);
        return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    std::unique_ptr<Engine> engine;
    {
        const std::lock_guard<std::mutex> engineLock(engineMutex_);
        engine = std::move(engine_);
    }
}

ServerStatistics AbilityServer::Statistics() const
{
    if (generation_ != ProcessGeneration()) {
        return {};
    }
    const std::lock_guard<std::mutex> lock(engineMutex_);
    return engine_ ? engine_->Statistics() : ServerStatistics();
}

}  // namespace VARN::Host
