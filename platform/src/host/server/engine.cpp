// SPDX-License-Identifier: Apache-2.0
#include "host/server/engine.h"

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <exception>
#include <new>
#include <utility>

#include "host/base/deadline.h"
#include "host/base/error_text.h"
#include "host/wire/socket_folder.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

constexpr uint64_t STOP_TOKEN = UINT64_MAX;
constexpr uint32_t INPUT_EVENTS = EPOLLIN | EPOLLRDHUP | EPOLLET;
constexpr uint32_t OUTPUT_EVENTS = EPOLLOUT | EPOLLRDHUP | EPOLLET;
// A socket is nearly always writable, so arming for both brings the next turn at once.
constexpr uint32_t TURN_EVENTS = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;

// For a worker that stays: what cannot be turned off, a hang-up, is then told only once.
constexpr uint32_t STAY_EVENTS = EPOLLET;

// A worker stays when so many visits in a row each came so soon after the one before: then the next will too.
constexpr uint32_t QUICK_VISITS = 8;
constexpr int64_t QUICK_MILLISECONDS = 10;

constexpr int64_t NEVER = INT64_MAX;
constexpr int64_t NANOSECONDS_PER_MILLISECOND = 1'000'000;

// A connection that is over its time but owned by a worker is looked at again after this.
constexpr int64_t RECHECK_NANOSECONDS = 20 * NANOSECONDS_PER_MILLISECOND;

// After so many the deadlines are looked at again: peers who connect without end must not keep the watch busy.
constexpr int MAX_ACCEPTS_AT_ONCE = 64;

// When descriptors or memory ran out, accepting is tried again after this, or when a connection ends.
constexpr int ACCEPT_PAUSE_MILLISECONDS = 100;

// A worker that has had nothing to do for this long gives up what memory it holds for the next request.
constexpr int IDLE_MILLISECONDS = 1000;

// What a peer gets to read a reply that waits when the server stops.
constexpr std::chrono::seconds DRAIN_TIME{2};

thread_local const AbilityServer* currentServer = nullptr;

int64_t Now()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// Good to some milliseconds, for a few nanoseconds.
int64_t CoarseMilliseconds()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / NANOSECONDS_PER_MILLISECOND;
}

uint32_t EventsFor(Connection::Next next)
{
    return next == Connection::Next::OUTPUT ? OUTPUT_EVENTS
           : next == Connection::Next::TURN ? TURN_EVENTS
                                            : INPUT_EVENTS;
}

bool IsBusy(Connection& connection)
{
    const int64_t now = CoarseMilliseconds();
    const bool isQuick = now - connection.lastVisit <= QUICK_MILLISECONDS;
    connection.lastVisit = now;
    connection.quickVisits = isQuick ? connection.quickVisits + 1 : 0;
    return connection.quickVisits >= QUICK_VISITS;
}

uint64_t CountAllowedDescriptors()
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

uint64_t MakeToken(uint32_t generation, uint32_t index)
{
    return uint64_t{generation} << 32 | index;
}

}  // namespace

AbilityServer::Engine::Engine(const AbilityServer& server)
    : server_(server),
      id_(server.id_),
      context_{server.stub_, server.options_, RefusalLog(server.id_)},
      slots_(server.options_),
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
    std::string problem = listener_.Open(context_.options.directory, id_);
    if (!problem.empty()) {
        return problem;
    }
    epoll_ = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    stopEvent_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    wakeEvent_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event stop = {};
    stop.events = EPOLLIN;
    stop.data.u64 = STOP_TOKEN;
    if (!epoll_ || !stopEvent_ || !wakeEvent_ ||
        ::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, stopEvent_.Get(), &stop) != 0) {
        return "the descriptors of the server cannot be made: " + ErrorText(errno);
    }
    // Signals are the program's own threads' business. Workers that are started later inherit this.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    bool isRunning = false;
    try {
        watcher_ = std::thread(&Engine::RunThread, this, &Engine::Watch);
        workers_.Start();
        isRunning = true;
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a thread cannot be started: %s", id_, exception.what());
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return isRunning ? "" : "it has no threads";
}

void AbilityServer::Engine::Stop()
{
    // The files go first, so that nobody finds a server that is about to go; the socket when nobody polls it any more.
    listener_.Withdraw();
    // Relaxed: the write to the event orders it.
    stopping_.store(true, std::memory_order_relaxed);
    if (stopEvent_) {
        ::eventfd_write(stopEvent_.Get(), 1);
        Wake();
    }
    workers_.Stop();
    if (watcher_.joinable()) {
        watcher_.join();
    }
    DrainOutput();
    listener_.Close();
    const uint32_t used = slots_.CountUsed();
    for (uint32_t index = 0; index < used; ++index) {
        if (slots_[index].AcquireIdle()) {
            CloseConnection(index);
        }
    }
}

void AbilityServer::Engine::RunThread(void (Engine::*loop)())
{
    currentServer = &server_;
    try {
        (this->*loop)();
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("service %d: a thread of the server ends: %s", id_, exception.what());
    }
}

void AbilityServer::Engine::Work()
{
    WorkerBuffers buffers;
    while (!stopping_.load(std::memory_order_relaxed)) {
        // One event at a time: what waits behind a slow operation is there for the other workers to take.
        epoll_event event = {};
        workers_.BeginWait();
        const int count = ::epoll_wait(epoll_.Get(), &event, 1, buffers.HoldsMuch() ? IDLE_MILLISECONDS : -1);
        const int error = errno;
        const bool hasWork = count == 1 && event.data.u64 != STOP_TOKEN;
        workers_.EndWait(hasWork);
        if (hasWork) {
            HandleEvent(event.data.u64, event.events, buffers);
        } else if (count == 0) {
            buffers.LetGo();
        } else if (count < 0 && error != EINTR) {
            PLATFORM_ERROR("service %d: a worker ends: epoll_wait: %s", id_, ErrorText(error).c_str());
            return;
        }
    }
}

void AbilityServer::Engine::HandleEvent(uint64_t token, uint32_t events, WorkerBuffers& buffers)
{
    const auto index = static_cast<uint32_t>(token);
    Slot& slot = slots_[index];
    bool hangUp = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    if (!slot.Acquire(static_cast<uint32_t>(token >> 32), hangUp)) {
        return;
    }
    do {
        Connection::Next next = ServeOnce(slot, buffers, hangUp);
        if (IsBusy(*slot.connection)) {
            next = Stay(index, next, buffers);
        }
        WatchFor(slot.deadline.load());
        if (next == Connection::Next::CLOSE || !Arm(index, EventsFor(next))) {
            CloseConnection(index);
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
        PLATFORM_ERROR("service %d: a connection of uid %u is dropped: %s", id_, slot.connection->GetCaller().uid,
                       exception.what());
    } catch (...) {
        PLATFORM_ERROR("service %d: a connection of uid %u is dropped: unknown exception", id_,
                       slot.connection->GetCaller().uid);
    }
    return Connection::Next::CLOSE;
}

// Serves a connection on and on, while it has no deadline (those are for the watcher, who takes no owned connection).
Connection::Next AbilityServer::Engine::Stay(uint32_t index, Connection::Next next, WorkerBuffers& buffers)
{
    Slot& slot = slots_[index];
    const auto mayStay = [&] {
        const bool goesOn = next == Connection::Next::INPUT || next == Connection::Next::TURN;
        return goesOn && slot.deadline.load() == 0 && workers_.MayStay();
    };
    if (!mayStay() || !Arm(index, STAY_EVENTS)) {
        return next;
    }
    workers_.BeginStay();
    while (mayStay()) {
        if (next == Connection::Next::INPUT &&
            !workers_.AwaitInput(slot.connection->GetFd(), buffers.HoldsMuch() ? IDLE_MILLISECONDS : -1)) {
            buffers.LetGo();
            break;
        }
        next = ServeOnce(slot, buffers, false);
        if (workers_.CallIdleBack(CoarseMilliseconds())) {
            break;
        }
    }
    workers_.EndStay();
    slot.connection->quickVisits = 0;
    return next;
}

bool AbilityServer::Engine::Arm(uint32_t index, uint32_t events)
{
    Connection& connection = *slots_[index].connection;
    if (events == connection.armedEvents && events != TURN_EVENTS) {
        return true;
    }
    connection.armedEvents = events;
    epoll_event event = {};
    event.events = events;
    event.data.u64 = MakeToken(slots_[index].GetGeneration(), index);
    return ::epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, connection.GetFd(), &event) == 0;
}

void AbilityServer::Engine::CloseConnection(uint32_t index)
{
    Slot& slot = slots_[index];
    const Caller caller = slot.connection->GetCaller();
    UserAccount& account = slot.connection->GetAccount();
    UniqueFd fd = slot.connection->TakeFd();
    slot.connection.reset();
    slot.Free();
    slots_.Leave(caller, account, index);
    // Last, so that a peer who sees the end and comes back at once finds the place free. A child that the service has
    // forked may hold a copy of the descriptor; the peer should see the end all the same.
    ::shutdown(fd.Get(), SHUT_RDWR);
    fd.Reset();
    if (acceptPaused_.load(std::memory_order_relaxed)) {
        Wake();
    }
}

void AbilityServer::Engine::Admit(UniqueFd fd)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        PLATFORM_ERROR("service %d: a peer has no identity: %s", id_, ErrorText(errno).c_str());
        return;
    }
    const Caller caller{peer.pid, peer.uid, peer.gid};
    uint32_t index = 0;
    UserAccount* account = slots_.Enter(caller, context_.refusals, index);
    if (account == nullptr) {
        return;
    }
    Slot& slot = slots_[index];
    epoll_event event = {};
    event.events = INPUT_EVENTS;
    event.data.u64 = MakeToken(slot.GetGeneration(), index);
    const int number = fd.Get();
    slot.connection.reset(new (std::nothrow) Connection(std::move(fd), caller, *account, slot.deadline));
    if (!slot.connection) {
        PLATFORM_ERROR("service %d: no memory for a connection of uid %u", id_, caller.uid);
        slots_.Leave(caller, *account, index);
        return;
    }
    slot.connection->armedEvents = INPUT_EVENTS;
    slot.Open();
    if (::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, number, &event) != 0 && slot.AcquireIdle()) {
        PLATFORM_ERROR("service %d: a connection cannot be watched: %s", id_, ErrorText(errno).c_str());
        CloseConnection(index);
    }
}

void AbilityServer::Engine::AcceptSome()
{
    for (int round = 0; round < MAX_ACCEPTS_AT_ONCE && !stopping_.load(std::memory_order_relaxed); ++round) {
        UniqueFd fd(::accept4(listener_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        const int error = errno;
        if (fd) {
            try {
                Admit(std::move(fd));
            } catch (const std::bad_alloc&) {
                PLATFORM_ERROR("service %d: no memory for a connection", id_);
            }
            continue;
        }
        if (error == EAGAIN) {
            return;
        }
        if (error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS) {
            const uint64_t allowed = error == EMFILE ? CountAllowedDescriptors() : 0;
            context_.refusals.Report(Limit::DESCRIPTORS, CurrentCaller(), allowed, allowed, ErrorText(error).c_str());
            acceptPaused_.store(true, std::memory_order_relaxed);
            return;
        }
        // Any other error is of the one connection that was about to be accepted.
        if (error != EINTR && error != ECONNABORTED) {
            PLATFORM_ERROR("service %d: accept: %s", id_, ErrorText(error).c_str());
            acceptPaused_.store(true, std::memory_order_relaxed);
            return;
        }
    }
}

void AbilityServer::Engine::Watch()
{
    while (!stopping_.load(std::memory_order_relaxed)) {
        const int64_t next = EndOverdue();
        int timeout = -1;
        if (next != NEVER) {
            const int64_t left = std::max<int64_t>(next - Now(), 0) / NANOSECONDS_PER_MILLISECOND + 1;
            timeout = static_cast<int>(std::min<int64_t>(left, INT_MAX));
        }
        const bool paused = acceptPaused_.load(std::memory_order_relaxed);
        if (paused) {
            timeout = timeout < 0 ? ACCEPT_PAUSE_MILLISECONDS : std::min(timeout, ACCEPT_PAUSE_MILLISECONDS);
        }
        // While accepting pauses, the socket would be readable all the time; poll ignores negative descriptors.
        std::array<pollfd, 2> entries{{{wakeEvent_.Get(), POLLIN, 0}, {paused ? -1 : listener_.Get(), POLLIN, 0}}};
        ::poll(entries.data(), entries.size(), timeout);
        if (entries[0].revents != 0) {
            eventfd_t ignored = 0;
            ::eventfd_read(wakeEvent_.Get(), &ignored);
        }
        acceptPaused_.store(false, std::memory_order_relaxed);
        if ((entries[1].revents != 0 || paused) && !stopping_.load(std::memory_order_relaxed)) {
            AcceptSome();
        }
    }
}

void AbilityServer::Engine::WatchFor(int64_t deadline)
{
    if (deadline != 0 && deadline < nextLook_.load()) {
        Wake();
    }
}

int64_t AbilityServer::Engine::EndOverdue()
{
    nextLook_.store(NEVER);
    const uint32_t used = slots_.CountUsed();
    const int64_t now = Now();
    int64_t next = NEVER;
    for (uint32_t index = 0; index < used; ++index) {
        Slot& slot = slots_[index];
        const int64_t deadline = slot.deadline.load();
        if (deadline == 0) {
            continue;
        }
        if (deadline > now) {
            next = std::min(next, deadline);
        } else if (!slot.AcquireIdle()) {
            next = std::min(next, now + RECHECK_NANOSECONDS);
        } else if (slot.deadline.load() == deadline) {
            const bool reply = slot.connection->HasOutput();
            const std::chrono::milliseconds allowed =
                reply ? context_.options.replyTimeout : context_.options.stallTimeout;
            const int64_t taken = allowed.count() + (now - deadline) / NANOSECONDS_PER_MILLISECOND;
            context_.refusals.Report(reply ? Limit::REPLY_TIME : Limit::REQUEST_TIME, slot.connection->GetCaller(),
                                     static_cast<uint64_t>(taken), static_cast<uint64_t>(allowed.count()));
            CloseConnection(index);
        } else {
            // It has moved on in the meantime.
            LetGo(index);
            next = now;
        }
    }
    nextLook_.store(next);
    return next;
}

void AbilityServer::Engine::DrainOutput()
{
    const Deadline end(DRAIN_TIME);
    WorkerBuffers buffers;
    const uint32_t used = slots_.CountUsed();
    for (uint32_t index = 0; index < used; ++index) {
        Slot& slot = slots_[index];
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

// Gives back a connection that was acquired without an event. Whatever event was missed meanwhile is made to come
// again.
void AbilityServer::Engine::LetGo(uint32_t index)
{
    bool hangUp = false;
    do {
        Arm(index, TURN_EVENTS);
    } while (!slots_[index].Release(hangUp));
}

void AbilityServer::Engine::Wake() const
{
    ::eventfd_write(wakeEvent_.Get(), 1);
}

}  // namespace VARN::Host
