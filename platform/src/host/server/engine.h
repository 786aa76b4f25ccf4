// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

#include "host/base/unique_fd.h"
#include "host/server/connection.h"
#include "host/server/listener.h"
#include "host/server/slot_table.h"
#include "host/server/worker_pool.h"

namespace VARN::Host {

// The threads of a server. One accepts connections and watches deadlines; the workers wait together on one epoll set
// with edge triggers, and whoever gets an event serves that connection until there is nothing left to do without
// waiting, or stays with it while its requests keep coming (see WorkerPool). A request costs the three system calls
// that wait, receive and send; there is no hand-over between threads.
class __attribute__((visibility("hidden"))) AbilityServer::Engine {
public:
    // For `server`, which outlives it.
    explicit Engine(const AbilityServer& server);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Empty on success, else what is wrong.
    std::string Start();
    void Stop();

    // Whether the calling thread is one of that server's: it cannot wait for itself to end.
    static bool IsThreadOf(const AbilityServer& server) noexcept;

private:
    void RunThread(void (Engine::*loop)());
    void Work();
    void Watch();

    void AcceptSome();
    void Admit(UniqueFd fd);
    void HandleEvent(uint64_t token, uint32_t events, WorkerBuffers& buffers);
    Connection::Next ServeOnce(Slot& slot, WorkerBuffers& buffers, bool hangUp);
    Connection::Next Stay(uint32_t index, Connection::Next next, WorkerBuffers& buffers);
    bool Arm(uint32_t index, uint32_t events);
    void CloseConnection(uint32_t index);
    void LetGo(uint32_t index);
    void WatchFor(int64_t deadline);
    int64_t EndOverdue();
    void DrainOutput();
    void Wake() const;

    const AbilityServer& server_;
    const int32_t id_;
    ServiceContext context_;
    Listener listener_;
    UniqueFd epoll_;
    UniqueFd stopEvent_;  // readable from the moment on when everything has to end
    UniqueFd wakeEvent_;  // wakes the thread that watches
    std::atomic<bool> stopping_{false};

    // Written by the watching thread: when it looks at the deadlines next. Sequentially consistent, together with the
    // deadlines: a worker sets a deadline and then reads this, the watcher sets this and then reads the deadlines, so
    // one of the two sees the other.
    std::atomic<int64_t> nextLook_{0};
    std::atomic<bool> acceptPaused_{false};

    SlotTable slots_;

    WorkerPool workers_;
    std::thread watcher_;
};

}  // namespace VARN::Host
