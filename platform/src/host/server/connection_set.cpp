// SPDX-License-Identifier: Apache-2.0
#include "host/server/connection_set.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "host/base/unix_socket.h"
#include "host/server/clock.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// What is reported, in the order of Connection::Next.
constexpr std::array<uint32_t, 4> EVENTS = {
    EPOLLIN | EPOLLRDHUP | EPOLLET,
    // Once, since a reader frees its socket piece by piece: one worker is enough to fill it again. With one at a time a
    // busy reader mostly meets the same worker, and its replies take memory of one worker alone.
    EPOLLOUT | EPOLLRDHUP | EPOLLET | EPOLLONESHOT,
    // A socket is nearly always writable, so arming for both brings the next turn at once.
    EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET,
    // A worker receives by itself.
    EPOLLET,
};

// So many idle connections are tried for one newcomer: each may turn out to be busy.
constexpr int MAX_EVICTIONS = 8;

}  // namespace

bool ConnectionSet::Open()
{
    epoll_ = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    return static_cast<bool>(epoll_);
}

void ConnectionSet::Admit(PeerSocket fd)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        PLATFORM_ERROR("service %d: a peer has no identity: %s", context_.id, ErrorText(errno).c_str());
        return;
    }
    const Caller caller{peer.pid, peer.uid, peer.gid};
    Slot* slot = Enter(caller);
    if (slot == nullptr) {
        return;
    }
    slot->connection.emplace(context_, std::move(fd), caller, *slot->account, slot->deadline);
    slot->armedFor.reset();
    slot->pace.quickVisits = 0;
    slot->pace.lastVisit.store(CoarseMilliseconds(), std::memory_order_relaxed);
    slot->Begin();
    admitted_.fetch_add(1, std::memory_order_release);
    if (!Arm(*slot, Connection::Next::INPUT)) {
        PLATFORM_ERROR("service %d: a connection cannot be watched: %s", context_.id, ErrorText(errno).c_str());
        Close(*slot);
        return;
    }
    slot->Open();
}

bool ConnectionSet::Arm(Slot& slot, Connection::Next next)
{
    using Next = Connection::Next;
    const std::optional<Next> before = std::exchange(slot.armedFor, next);
    // The others bring their event by being armed anew.
    if (before == next && (next == Next::INPUT || next == Next::STAY)) {
        return true;
    }
    epoll_event event = {};
    event.events = EVENTS[static_cast<size_t>(next)];
    event.data.ptr = &slot;
    const int operation = before ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    return ::epoll_ctl(epoll_.Get(), operation, slot.connection->GetFd(), &event) == 0;
}

void ConnectionSet::Close(Slot& slot)
{
    const PeerSocket fd = slot.connection->TakeFd();
    context_.NoteEnd();
    slot.connection.reset();
    {
        const MutexLock lock(mutex_);
        slot.Free();
        slot.nextFree = std::exchange(free_, &slot);
        Account& account = *std::exchange(slot.account, nullptr);
        context_.connections.Give(account.connections, 1);
        EraseIfGone(account);
    }
    // Last, so that a peer that sees the end and comes back at once finds the place free. A child that the service has
    // forked may hold a copy of the descriptor; the peer should see the end all the same.
    ::shutdown(fd.Get(), SHUT_RDWR);
}

void ConnectionSet::LetGo(Slot& slot)
{
    while (!slot.Release()) {
        if (!Arm(slot, Connection::Next::TURN)) {
            Close(slot);
            return;
        }
    }
}

void ConnectionSet::EraseIfGone(const Account& account)
{
    if (account.connections.load() == 0) {
        accounts_.erase(account.uid);
    }
}

// A place, already counted. Null, after a line, when the user may have none.
Slot* ConnectionSet::Enter(const Caller& caller)
{
    for (int evictions = 0;; ++evictions) {
        Slot* victim = nullptr;
        {
            const MutexLock lock(mutex_);
            if (free_ == nullptr) {
                free_ = &places_.emplace_back();
            }
            Account& account = accounts_.try_emplace(caller.uid, caller.uid).first->second;
            Stock& stock = context_.connections;
            size_t allowed = 0;
            const Stock::Answer answer = stock.Take(account, account.connections, 1, allowed);
            if (answer == Stock::Answer::TAKEN) {
                free_->account = &account;
                return std::exchange(free_, free_->nextFree);
            }
            const bool ofUser = answer == Stock::Answer::BEYOND_SHARE;
            victim = evictions < MAX_EVICTIONS ? FindLongestIdle(ofUser ? &account : nullptr) : nullptr;
            if (victim == nullptr) {
                context_.Refuse(&account, ofUser ? Limit::CONNECTIONS_PER_USER : Limit::CONNECTIONS, caller,
                                ofUser ? account.connections.load() : stock.CountHeld(),
                                ofUser ? allowed : context_.options.maxConnections);
                EraseIfGone(account);
                return nullptr;
            }
        }
        Evict(*victim);
    }
}

// Of that user, or, for null, of the user with the most connections that has an idle one.
Slot* ConnectionSet::FindLongestIdle(const Account* user)
{
    Slot* found = nullptr;
    std::pair<size_t, int64_t> most;
    for (Slot& slot : places_) {
        // A connection with a deadline has something in hand.
        if (slot.account == nullptr || (user != nullptr && slot.account != user) || !slot.IsIdle() ||
            slot.deadline.load() != 0) {
            continue;
        }
        const std::pair<size_t, int64_t> held(slot.account->connections.load(),
                                              -slot.pace.lastVisit.load(std::memory_order_relaxed));
        if (found == nullptr || held > most) {
            most = held;
            found = &slot;
        }
    }
    return found;
}

// Unless it is not idle after all. What has come in meanwhile is answered by a worker, which then sees the end.
void ConnectionSet::Evict(Slot& slot)
{
    if (!slot.AcquireIdle()) {
        return;
    }
    const int fd = slot.connection->GetFd();
    if (slot.deadline.load() == 0 && slot.connection->IsAtStart() && CountUnread(fd) == 0) {
        ::shutdown(fd, SHUT_RD);
        if (CountUnread(fd) == 0) {
            Close(slot);
            return;
        }
    }
    // Not the longest idle one any more.
    slot.pace.lastVisit.store(CoarseMilliseconds(), std::memory_order_relaxed);
    LetGo(slot);
}

ServerStatistics ConnectionSet::Describe()
{
    ServerStatistics statistics;
    const MutexLock lock(mutex_);
    for (const auto& [uid, account] : accounts_) {
        UserStatistics user{uid,
                            account.connections.load(),
                            account.requestBytes.load(),
                            account.replyBytes.load(),
                            account.workers.load(),
                            account.waiting.load(),
                            account.refused.load(std::memory_order_relaxed)};
        statistics.connections += user.connections;
        statistics.requestBytes += user.requestBytes;
        statistics.replyBytes += user.replyBytes;
        statistics.workersAtWork += user.workersAtWork;
        statistics.waiting += user.waiting;
        statistics.users.push_back(user);
    }
    return statistics;
}

}  // namespace VARN::Host
