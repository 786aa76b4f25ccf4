// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "host/connection.h"
#include "host/listener.h"
#include "host/slot_table.h"
#include "host/thread_safety.h"
#include "host/unique_fd.h"

namespace VARN::Host {

// The threads of a server. One accepts connections and watches deadlines; the workers wait together on one epoll set
// with edge triggers, and whoever gets an event serves that connection until there is nothing left to do without
// waiting. A request costs the three system calls that wait, receive and send; there is no hand-over between threads.
// There is one worker to begin with. The last who waits, when it gets something to do, sees to it that somebody waits
// after it: it starts another worker, as many as are allowed.
//
// A worker stays with a connection whose requests keep coming, and waits for that one alone, as long as others wait for
// the rest. So with a few busy clients each has a thread, which the scheduler brings to its client's processor, instead
// of meeting whichever comes. When there are no more workers to start, the last who waits calls back one that stays: no
// connection waits behind a worker that has nothing to do.
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
    std::string AddThread(void (Engine::*loop)()) REQUIRES(mutex_);
    bool AddWorker();
    void RunThread(void (Engine::*loop)());
    void Work();
    void Watch();

    void AcceptSome();
    void Admit(UniqueFd fd);
    void HandleEvent(uint64_t token, uint32_t events, WorkerBuffers& buffers);
    Connection::Next ServeOnce(Slot& slot, WorkerBuffers& buffers, bool hangUp);
    Connection::Next Stay(uint32_t index, Connection::Next next, WorkerBuffers& buffers);
    bool AwaitNext(const Connection& connection, WorkerBuffers& buffers) const;
    void BeginWork();
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
    UniqueFd recall_;     // calls one worker back from the connection that it stays with
    std::atomic<bool> stopping_{false};

    // Written by the watching thread: when it looks at the deadlines next. Sequentially consistent, together with the
    // deadlines: a worker sets a deadline and then reads this, the watcher sets this and then reads the deadlines, so
    // one of the two sees the other.
    std::atomic<int64_t> nextLook_{0};
    std::atomic<bool> acceptPaused_{false};

    SlotTable slots_;

    // Workers that wait for any connection, and workers that stay with one. Sequentially consistent: who stays counts
    // itself and then looks whether somebody waits, the last who waits takes itself out and then looks whether somebody
    // stays, so one of the two sees the other.
    std::atomic<size_t> waiting_{0};
    std::atomic<size_t> staying_{0};

    // Relaxed: whoever misses the change finds out under the lock.
    std::atomic<bool> hasAllWorkers_{false};

    Mutex mutex_;
    std::vector<std::thread> threads_ GUARDED_BY(mutex_);  // the watching one first
};

}  // namespace VARN::Host
