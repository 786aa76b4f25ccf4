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

#include "host/base/deadline.h"
#include "host/base/error_text.h"
#include "host/server/clock.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

constexpr uint64_t STOP_TOKEN = UINT64_MAX;

// A worker that has had nothing to do for this long gives up what memory it holds for the next request.
constexpr int IDLE_MILLISECONDS = 1000;

// What a peer gets to read a reply that waits when the server stops.
constexpr std::chrono::seconds DRAIN_TIME{2};

thread_local const AbilityServer* currentServer = nullptr;

int GetPatience(const WorkerBuffers& buffers)
{
    return buffers.HoldsMuch() ? IDLE_MILLISECONDS : -1;
}

}  // namespace

// A connection that the calling worker owns and may stay with.
class AbilityServer::Engine::OwnedConnection final : public WorkerPool::Visit {
public:
    OwnedConnection(Engine& engine, uint32_t index, WorkerBuffers& buffers, bool hangUp)
        : engine_(engine), index_(index), slot_(engine.connections_[index]), buffers_(buffers)
    {
        next_ = engine_.ServeOnce(slot_, buffers_, hangUp);
    }

    Connection::Next GetNext() const noexcept { return next_; }

    int GetFd() const override { return slot_.connection->GetFd(); }
    bool Prepare() override { return engine_.connections_.ArmForStay(index_); }
    Ahead GetAhead() const override
    {
        // A deadline is for the watcher, which takes no connection that is owned.
        if (slot_.deadline.load() != 0) {
            return Ahead::NOTHING;
        }
        return next_ == Connection::Next::INPUT  ? Ahead::INPUT
               : next_ == Connection::Next::TURN ? Ahead::MORE
                                                 : Ahead::NOTHING;
    }
    void Serve() override { next_ = engine_.ServeOnce(slot_, buffers_, false); }
    int GetPatience() const override { return Host::GetPatience(buffers_); }

private:
    Engine& engine_;
    const uint32_t index_;
    Slot& slot_;
    WorkerBuffers& buffers_;
    Connection::Next next_;
};

AbilityServer::Engine::Engine(const AbilityServer& server)
    : server_(server),
      context_{server.id_, server.stub_, server.options_, RefusalLog(server.id_)},
      connections_(context_),
      watcher_(context_, connections_),
      workers_(server.options_.workers, context_.refusals, [this] { RunThread(&Engine::Work); })
{
}

AbilityServer::Engine::~Engine()
{
    Stop();
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
    epoll_event stop = {};
    stop.events = EPOLLIN;
    stop.data.u64 = STOP_TOKEN;
    if (!stopEvent_ || !watcher_.Open() || !connections_.Open() ||
        ::epoll_ctl(connections_.GetEpoll(), EPOLL_CTL_ADD, stopEvent_.Get(), &stop) != 0) {
        return "the descriptors of the server cannot be made: " + ErrorText(errno);
    }
    // Signals are for the program's own threads. Workers that are started later inherit this.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    bool isRunning = false;
    try {
        watcherThread_ = std::thread(&Engine::RunThread, this, &Engine::Watch);
        workers_.Start();
        isRunning = true;
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a thread cannot be started: %s", context_.id, exception.what());
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return isRunning ? "" : "it has no threads";
}

void AbilityServer::Engine::Stop()
{
    // The files go first, so that no client finds a server that is about to go; the socket when no thread polls it.
    listener_.Withdraw();
    stopping_.store(true, std::memory_order_relaxed);
    if (stopEvent_) {
        ::eventfd_write(stopEvent_.Get(), 1);
        watcher_.Stop();
    }
    workers_.Stop();
    if (watcherThread_.joinable()) {
        watcherThread_.join();
    }
    DrainOutput();
    listener_.Close();
    const uint32_t used = connections_.CountUsed();
    for (uint32_t index = 0; index < used; ++index) {
        if (connections_[index].AcquireIdle()) {
            connections_.Close(index);
        }
    }
}

void AbilityServer::Engine::RunThread(void (Engine::*loop)())
{
    currentServer = &server_;
    try {
        (this->*loop)();
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a thread of the server ends: %s", context_.id, exception.what());
    }
}

void AbilityServer::Engine::Work()
{
    WorkerBuffers buffers;
    while (!stopping_.load(std::memory_order_relaxed)) {
        // One event at a time: what waits behind a slow operation is there for the other workers to take.
        epoll_event event = {};
        int count = 0;
        int error = 0;
        workers_.AwaitAny([&] {
            count = ::epoll_wait(connections_.GetEpoll(), &event, 1, GetPatience(buffers));
            error = errno;
            return count == 1 && event.data.u64 != STOP_TOKEN;
        });
        if (count == 0) {
            buffers.LetGo();
        } else if (count > 0 && event.data.u64 != STOP_TOKEN) {
            HandleEvent(event.data.u64, event.events, buffers);
        } else if (count < 0 && error != EINTR) {
            PLATFORM_ERROR("service %d: a worker ends: epoll_wait: %s", context_.id, ErrorText(error).c_str());
            return;
        }
    }
}

void AbilityServer::Engine::HandleEvent(uint64_t token, uint32_t events, WorkerBuffers& buffers)
{
    const auto index = static_cast<uint32_t>(token);
    Slot& slot = connections_[index];
    bool hangUp = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    if (!slot.Acquire(static_cast<uint32_t>(token >> 32), hangUp)) {
        return;
    }
    do {
        OwnedConnection owned(*this, index, buffers, hangUp);
        workers_.StayIfBusy(slot.pace, owned, CoarseMilliseconds);
        watcher_.WatchFor(slot.deadline.load());
        if (owned.GetNext() == Connection::Next::CLOSE || !connections_.Arm(index, owned.GetNext())) {
            connections_.Close(index);
            watcher_.ConnectionEnded();
            return;
        }
    } while (!slot.Release(hangUp));
}

Connection::Next AbilityServer::Engine::ServeOnce(Slot& slot, WorkerBuffers& buffers, bool hangUp)
{
    // The service's own exceptions never get here; an observer's or a failed allocation may.
    try {
        return slot.connection->Serve(context_, buffers, hangUp);
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a connection of uid %u is dropped: %s", context_.id,
                       slot.connection->GetCaller().uid, exception.what());
    } catch (...) {
        PLATFORM_ERROR("service %d: a connection of uid %u is dropped: unknown exception", context_.id,
                       slot.connection->GetCaller().uid);
    }
    return Connection::Next::CLOSE;
}

void AbilityServer::Engine::DrainOutput()
{
    const Deadline end(DRAIN_TIME);
    WorkerBuffers buffers;
    const uint32_t used = connections_.CountUsed();
    for (uint32_t index = 0; index < used; ++index) {
        Slot& slot = connections_[index];
        if (!slot.AcquireIdle()) {
            continue;
        }
        while (slot.connection->Flush(buffers) == Connection::Next::OUTPUT && !end.IsOver()) {
            pollfd entry = {slot.connection->GetFd(), POLLOUT, 0};
            ::poll(&entry, 1, end.LeftMilliseconds());
        }
        bool hangUp = false;
        slot.Release(hangUp);
    }
}

}  // namespace VARN::Host
