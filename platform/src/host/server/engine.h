// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "host/base/unique_fd.h"
#include "host/server/connection_set.h"
#include "host/server/listener.h"
#include "host/server/turns.h"
#include "host/server/watcher.h"
#include "host/server/worker_pool.h"

namespace VARN::Host {

// The threads of a server and what they do with events. One thread watches (see Watcher). The workers wait together on
// one epoll set with edge triggers; the one that gets an event owns that connection and serves it until there is
// nothing left to do without waiting (see Slot), or stays with it while its requests keep coming (see WorkerPool).
// When the user has its share of the workers at work, the connection waits in the user's queue instead (see Turns). A
// request costs the three system calls that wait, receive and send; no thread passes it to another.
class __attribute__((visibility("hidden"))) AbilityServer::Engine {
public:
    // For `server`, which outlives it.
    Engine(const AbilityServer& server, const AbilityServerOptions& options);
    // Lets end what runs, see AbilityServer::Stop.
    ~Engine();

    // Empty on success, else what is wrong.
    std::string Start();
    ServerStatistics Statistics();

    // Whether the calling thread is one of that server's: it cannot wait for itself to end.
    static bool IsThreadOf(const AbilityServer& server) noexcept;

private:
    void RunThread(const char* name, const std::function<void()>& loop);
    void Work(Worker& worker);

    void HandleEvent(Slot& slot, uint32_t events, Worker& worker);
    void ServeWaiting(Worker& worker);
    void Serve(Slot& slot, Worker& worker, bool hasBegun);
    Connection::Next ServeOnce(Slot& slot, Worker& worker, int64_t now);
    void EndConnection(Slot& slot);
    void DrainOutput();

    const AbilityServer& server_;
    ServiceContext context_;
    Listener listener_;
    UniqueFd stopEvent_;  // readable from the moment on when everything has to end

    ConnectionSet connections_;
    Turns turns_;
    WorkerPool workers_;
    Watcher watcher_;
    std::thread watcherThread_;
};

}  // namespace VARN::Host
