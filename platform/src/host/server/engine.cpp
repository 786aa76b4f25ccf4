// SPDX-License-Identifier: Apache-2.0
#include "host/server/engine.h"

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <utility>
#include <vector>

#include "host/base/deadline.h"
#include "host/server/clock.h"
#include "host/server/heap.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// A worker that has had nothing to do for this long gives memory back, and ends if it is a spare one.
constexpr int IDLE_MILLISECONDS = 1000;

// What a peer gets to read a reply that waits when the server stops.
constexpr std::chrono::seconds DRAIN_TIME{2};

thread_local const AbilityServer* currentServer = nullptr;

int GetPatience(const Worker& worker)
{
    return worker.hasFreedMuch ? IDLE_MILLISECONDS : -1;
}

bool HasHungUp(const Connection& connection)
{
    pollfd entry = {connection.GetFd(), 0, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLHUP) != 0;
}

}  // namespace

AbilityServer::Engine::Engine(const AbilityServer& server, const AbilityServerOptions& options)
    : server_(server),
      context_(server.id_, server.stub_, options),
      connections_(context_),
      turns_(context_),
      workers_(context_, [this](Worker& worker) { RunThread("varn-worker", [&] { Work(worker); }); }),
      watcher_(context_, connections_, workers_)
{
}

bool AbilityServer::Engine::IsThreadOf(const AbilityServer& server) noexcept
{
    return currentServer == &server;
}

std::string AbilityServer::Engine::Start()
{
    std::string problem = listener_.Open(context_.options.directory, context_.id);
    if (!problem.empty()) {
        return problem;
    }
    stopEvent_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event stop = {};  // unlike the others' it names no place
    stop.events = EPOLLIN;
    if (!stopEvent_ || !watcher_.Open() || !connections_.Open() ||
        ::epoll_ctl(connections_.GetEpoll(), EPOLL_CTL_ADD, stopEvent_.Get(), &stop) != 0) {
        return "the descriptors of the server cannot be made: " + ErrorText(errno);
    }
    // Signals are for the program's own threads. Workers that are started later inherit this.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        watcherThread_ = std::thread([this] { RunThread("varn-watcher", [this] { watcher_.Run(listener_.Get()); }); });
        workers_.Start();
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a thread cannot be started: %s", context_.id, exception.what());
        problem = "it has no threads";
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return problem;
}

AbilityServer::Engine::~Engine()
{
    // Nothing begins any more. The files go next, so that no client finds a server that is about to go; the socket goes
    // last, when no thread polls it.
    context_.stopping.store(true, std::memory_order_relaxed);
    listener_.Withdraw();
    ::eventfd_write(stopEvent_.Get(), 1);
    watcher_.Wake();
    workers_.Stop();
    if (watcherThread_.joinable()) {
        watcherThread_.join();
    }
    // What has not begun is not executed. No thread is left that could own a connection.
    DrainOutput();
    for (Slot& slot : connections_.GetPlaces()) {
        if (slot.connection) {
            connections_.Close(slot);
        }
    }
}

void AbilityServer::Engine::RunThread(const char* name, const std::function<void()>& loop)
{
    ::pthread_setname_np(::pthread_self(), name);  // for `top -H` and debuggers
    currentServer = &server_;
    try {
        loop();
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a thread of the server ends: %s", context_.id, exception.what());
    }
}

void AbilityServer::Engine::Work(Worker& worker)
{
    while (!context_.stopping.load(std::memory_order_relaxed)) {
        // One event at a time: what waits behind a slow operation is there for the other workers to take.
        epoll_event event = {};
        int count = 0;
        int error = 0;
        workers_.AwaitAny([&] {
            // A place that a stuck worker leaves brings no event: what waits for it is looked at from time to time.
            const bool looksAgain = workers_.HasSpare() || turns_.HasWaiting();
            const int patience = looksAgain ? IDLE_MILLISECONDS : GetPatience(worker);
            count = ::epoll_wait(connections_.GetEpoll(), &event, 1, patience);
            error = errno;
            return count == 0 ? turns_.HasWaiting() : count == 1 && event.data.ptr != nullptr;
        });
        if (count == 0) {
            ServeWaiting(worker);
            if (worker.hasFreedMuch) {
                GiveArenaBack();
                // What is held may be freed by any thread, into the arena that it came from.
                worker.hasFreedMuch = context_.bytes.CountHeld() != 0;
            }
            if (workers_.Retire(worker)) {
                worker.reply.reset();  // the pool may keep the rest for long
                break;
            }
        }
        if (Slot* slot = connections_.SlotOf(event); count > 0 && slot != nullptr) {
            HandleEvent(*slot, event.events, worker);
        } else if (count < 0 && error != EINTR) {
            PLATFORM_ERROR("service %d: a worker ends: epoll_wait: %s", context_.id, ErrorText(error).c_str());
            break;
        }
    }
}

void AbilityServer::Engine::HandleEvent(Slot& slot, uint32_t events, Worker& worker)
{
    if (!slot.Acquire((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0)) {
        // It may wait for its turn: then no thread would read the reply.
        if ((events & EPOLLHUP) == 0 || !turns_.HasWaiting() || !turns_.Remove(slot)) {
            return;
        }
        if (HasHungUp(*slot.connection)) {
            EndConnection(slot);
            return;
        }
    }
    Serve(slot, worker, false);
    ServeWaiting(worker);
}

void AbilityServer::Engine::ServeWaiting(Worker& worker)
{
    while (turns_.HasWaiting() && !context_.stopping.load(std::memory_order_relaxed)) {
        Slot* slot = turns_.TakeNext();
        if (slot == nullptr) {
            return;
        }
        if (HasHungUp(*slot->connection)) {
            // While the worker that got the event was busy putting it into the queue.
            turns_.End(*slot->account);
            EndConnection(*slot);
        } else {
            Serve(*slot, worker, true);
        }
    }
}

// Serves a connection that the calling worker owns until there is nothing left to do without waiting, or until it has
// to wait for its turn: then it is the queue's, and nothing of it is touched any more. `hasBegun`: its turn has come.
void AbilityServer::Engine::Serve(Slot& slot, Worker& worker, bool hasBegun)
{
    do {
        auto next = Connection::Next::CLOSE;
        int64_t begin = 0;
        bool mayStay = false;
        {
            WorkerPool::Stay stay(workers_, slot.pace);
            do {
                if (!hasBegun && !turns_.Begin(slot)) {
                    return;
                }
                hasBegun = false;
                begin = CoarseMilliseconds();
                // Once the server ends nothing begins; what a peer has still to read is sent at the end.
                next = context_.stopping.load(std::memory_order_relaxed) ? Connection::Next::INPUT
                                                                         : ServeOnce(slot, worker, begin);
                turns_.End(*slot.account);
                // A deadline is for the watcher, which takes no connection that is owned. Others' turn comes first.
                mayStay = (next == Connection::Next::INPUT || next == Connection::Next::TURN) &&
                          slot.deadline.load() == 0 && !turns_.HasWaiting();
            } while (
                stay.GoesOn(begin, mayStay) && connections_.Arm(slot, Connection::Next::STAY) &&
                (next == Connection::Next::TURN || stay.AwaitInput(slot.connection->GetFd(), GetPatience(worker))));
        }
        watcher_.WatchFor(slot.deadline.load());
        if (next == Connection::Next::CLOSE || !connections_.Arm(slot, next)) {
            EndConnection(slot);
            return;
        }
    } while (!slot.Release());
}

void AbilityServer::Engine::EndConnection(Slot& slot)
{
    connections_.Close(slot);
    watcher_.ConnectionEnded();
}

Connection::Next AbilityServer::Engine::ServeOnce(Slot& slot, Worker& worker, int64_t now)
{
    worker.uid.store(slot.account->uid, std::memory_order_relaxed);
    worker.since.store(now);
    watcher_.NoteRequest(now);
    Connection::Next next = Connection::Next::CLOSE;
    // The service's own exceptions never get here; an observer's or a failed allocation may.
    try {
        next = slot.connection->Serve(worker, std::exchange(slot.hasHungUp, false));
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a connection of uid %u is dropped: %s", context_.id, slot.account->uid,
                       exception.what());
    } catch (...) {
        PLATFORM_ERROR("service %d: a connection of uid %u is dropped: unknown exception", context_.id,
                       slot.account->uid);
    }
    worker.since.store(0, std::memory_order_relaxed);
    return next;
}

// All readers of waiting replies read at the same time, so that one that never reads costs the others nothing.
void AbilityServer::Engine::DrainOutput()
{
    const Deadline end(DRAIN_TIME);
    Worker worker;  // for its buffers alone
    std::vector<pollfd> waiting;
    do {
        waiting.clear();
        for (Slot& slot : connections_.GetPlaces()) {
            if (slot.connection && slot.connection->Flush(worker) == Connection::Next::OUTPUT) {
                waiting.push_back({slot.connection->GetFd(), POLLOUT, 0});
            }
        }
    } while (!waiting.empty() && ::poll(waiting.data(), waiting.size(), end.LeftMilliseconds()) != 0 && !end.IsOver());
}

ServerStatistics AbilityServer::Engine::Statistics()
{
    ServerStatistics statistics = connections_.Describe();
    statistics.workers = workers_.Count();
    statistics.workersStuck = workers_.CountStuck();
    statistics.refused = context_.CountRefused();
    return statistics;
}

}  // namespace VARN::Host
