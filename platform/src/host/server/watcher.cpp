// SPDX-License-Identifier: Apache-2.0
#include "host/server/watcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <new>
#include <utility>

#include "host/server/clock.h"
#include "host/server/heap.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

constexpr int64_t NEVER = INT64_MAX;

// A connection that is over its time but owned by a worker is looked at again after this.
constexpr int64_t RECHECK_MILLISECONDS = 20;

// After so many the deadlines are looked at again: peers that connect without end must not keep the watcher busy.
constexpr int MAX_ACCEPTS_AT_ONCE = 64;

// After a request has begun: is a worker stuck, is there memory to give back? Without requests there is nothing to see.
constexpr int64_t LOOK_MILLISECONDS = 1000;

// When descriptors or memory ran out, accepting is tried again after this, or when a connection ends.
constexpr int64_t ACCEPT_PAUSE_MILLISECONDS = 100;

}  // namespace

bool Watcher::Open()
{
    wakeEvent_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return static_cast<bool>(wakeEvent_);
}

void Watcher::WatchFor(int64_t deadline)
{
    if (deadline != 0 && deadline < nextLook_.load()) {
        Wake();
    }
}

void Watcher::NoteRequest(int64_t now)
{
    // The coarse clock is behind: by the exact one's second alone each request would be too early for the look that the
    // one before has brought about, and wake the thread again.
    constexpr int64_t LAG_MILLISECONDS = LOOK_MILLISECONDS / 10;
    WatchFor(now + LOOK_MILLISECONDS + LAG_MILLISECONDS);
}

void Watcher::ConnectionEnded()
{
    // Accepting goes on at once. Else what the connection held may have been much, and no request may follow.
    const bool isPaused = acceptPaused_.load(std::memory_order_relaxed);
    WatchFor(isPaused ? 1 : SteadyMilliseconds() + LOOK_MILLISECONDS);
}

void Watcher::Run(int listener)
{
    while (!context_.stopping.load(std::memory_order_relaxed)) {
        const int64_t left = EndOverdue() - SteadyMilliseconds();
        const bool paused = acceptPaused_.load(std::memory_order_relaxed);
        // While accepting pauses, the socket would be readable all the time; poll ignores negative descriptors.
        std::array<pollfd, 2> entries{{{wakeEvent_.Get(), POLLIN, 0}, {paused ? -1 : listener, POLLIN, 0}}};
        ::poll(entries.data(), entries.size(), static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX)));
        if (entries[0].revents != 0) {
            eventfd_t ignored = 0;
            ::eventfd_read(wakeEvent_.Get(), &ignored);
            lookUntil_ = SteadyMilliseconds() + LOOK_MILLISECONDS;
        }
        acceptPaused_.store(false, std::memory_order_relaxed);
        if (entries[1].revents != 0 || paused) {
            AcceptSome(listener);
        }
    }
}

void Watcher::AcceptSome(int listener)
{
    for (int round = 0; round < MAX_ACCEPTS_AT_ONCE && !context_.stopping.load(std::memory_order_relaxed); ++round) {
        UniqueFd fd(::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        const int error = errno;
        if (fd) {
            try {
                connections_.Admit(PeerSocket(std::move(fd)));
            } catch (const std::bad_alloc&) {
                PLATFORM_ERROR("service %d: no memory for a connection", context_.id);
            }
            continue;
        }
        if (error == EAGAIN) {
            return;
        }
        // These are of the one connection that was about to be accepted.
        if (error == EINTR || error == ECONNABORTED) {
            continue;
        }
        if (error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS) {
            rlimit limit = {};
            if (error == EMFILE) {
                ::getrlimit(RLIMIT_NOFILE, &limit);
            }
            context_.Refuse(nullptr, Limit::DESCRIPTORS, CurrentCaller(), limit.rlim_cur, limit.rlim_cur,
                            ErrorText(error).c_str());
        } else {
            PLATFORM_ERROR("service %d: accept: %s", context_.id, ErrorText(error).c_str());
        }
        acceptPaused_.store(true, std::memory_order_relaxed);
        return;
    }
}

// Returns when to look again.
int64_t Watcher::EndOverdue()
{
    nextLook_.store(NEVER);
    const int64_t now = SteadyMilliseconds();
    int64_t next = NEVER;
    for (Slot& slot : connections_.GetPlaces()) {
        const int64_t deadline = slot.deadline.load();
        if (deadline == 0) {
            continue;
        }
        if (deadline > now) {
            next = std::min(next, deadline);
        } else if (!slot.AcquireIdle()) {
            next = std::min(next, now + RECHECK_MILLISECONDS);
        } else if (slot.deadline.load() == deadline) {
            EndForTime(slot, now - deadline);
        } else {
            // It has moved on in the meantime.
            connections_.LetGo(slot);
            next = now;
        }
    }
    // What a burst has freed stays in the allocator's lists until it is told. That is done once it is quiet, since a
    // service that is at work would take it again at once.
    if (context_.TakeBurst()) {
        nextTrim_ = now + LOOK_MILLISECONDS;
    } else if (now >= nextTrim_) {
        nextTrim_ = NEVER;
        GiveHeapBack();
    }
    next = std::min({next, nextTrim_, workers_.LookForStuck(now, now + LOOK_MILLISECONDS),
                     now < lookUntil_ ? lookUntil_ : NEVER,
                     acceptPaused_.load(std::memory_order_relaxed) ? now + ACCEPT_PAUSE_MILLISECONDS : NEVER});
    nextLook_.store(next);
    return next;
}

void Watcher::EndForTime(Slot& slot, int64_t late)
{
    const bool reply = slot.connection->HasOutput();
    const int64_t allowed = (reply ? context_.options.replyTimeout : context_.options.stallTimeout).count();
    context_.Refuse(slot.account, reply ? Limit::REPLY_TIME : Limit::REQUEST_TIME, slot.connection->GetCaller(),
                    static_cast<uint64_t>(allowed + late), static_cast<uint64_t>(allowed));
    connections_.Close(slot);
}

}  // namespace VARN::Host
