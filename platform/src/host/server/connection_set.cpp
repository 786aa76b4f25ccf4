// SPDX-License-Identifier: Apache-2.0
#include "host/server/connection_set.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "host/base/unix_socket.h"
#include "host/server/clock.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

constexpr uint32_t INPUT_EVENTS = EPOLLIN | EPOLLRDHUP | EPOLLET;
// Once, since a reader frees its socket piece by piece: one worker is enough to fill it again. With one at a time a
// busy reader mostly meets the same worker, and its replies take memory of one worker alone.
constexpr uint32_t OUTPUT_EVENTS = EPOLLOUT | EPOLLRDHUP | EPOLLET | EPOLLONESHOT;
// A socket is nearly always writable, so arming for both brings the next turn at once.
constexpr uint32_t TURN_EVENTS = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;

constexpr uint32_t STAY_EVENTS = EPOLLET;

uint32_t EventsFor(Connection::Next next)
{
    return next == Connection::Next::OUTPUT ? OUTPUT_EVENTS
           : next == Connection::Next::TURN ? TURN_EVENTS
                                            : INPUT_EVENTS;
}

// So many idle connections are tried for one newcomer: each may turn out to be busy.
constexpr int MAX_EVICTIONS = 8;

uint64_t MakeToken(uint32_t generation, uint32_t index)
{
    return uint64_t{generation} << 32 | index;
}

}  // namespace

ConnectionSet::ConnectionSet(ServiceContext& context)
    : context_(context),
      maxBlocks_((context.options.maxConnections + BLOCK_SIZE - 1) / BLOCK_SIZE),
      blocks_(new std::atomic<Slot*>[maxBlocks_]())
{
    free_.reserve(context.options.maxConnections);
}

ConnectionSet::~ConnectionSet()
{
    for (size_t block = 0; block < maxBlocks_; ++block) {
        delete[] blocks_[block].load(std::memory_order_relaxed);
    }
}

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
    uint32_t index = 0;
    Account* account = Enter(caller, index);
    if (account == nullptr) {
        return;
    }
    Slot& slot = (*this)[index];
    const int number = fd.Get();
    slot.connection.reset(new (std::nothrow) Connection(context_, std::move(fd), caller, *account, slot.deadline));
    if (!slot.connection) {
        PLATFORM_ERROR("service %d: no memory for a connection of uid %u", context_.id, caller.uid);
        Leave(index);
        return;
    }
    slot.armedEvents = INPUT_EVENTS;
    slot.pace.quickVisits = 0;
    slot.pace.lastVisit.store(CoarseMilliseconds(), std::memory_order_relaxed);
    epoll_event event = {};
    event.events = INPUT_EVENTS;
    event.data.u64 = MakeToken(slot.GetGeneration(), index);
    slot.Open();
    if (::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, number, &event) != 0 && slot.AcquireIdle()) {
        PLATFORM_ERROR("service %d: a connection cannot be watched: %s", context_.id, ErrorText(errno).c_str());
        Close(index);
    }
}

bool ConnectionSet::Arm(uint32_t index, Connection::Next next)
{
    return ArmFor(index, EventsFor(next));
}

bool ConnectionSet::ArmForStay(uint32_t index)
{
    return ArmFor(index, STAY_EVENTS);
}

bool ConnectionSet::ArmFor(uint32_t index, uint32_t events)
{
    Slot& slot = (*this)[index];
    const bool isLasting = events == INPUT_EVENTS || events == STAY_EVENTS;
    if (events == slot.armedEvents && isLasting) {
        return true;
    }
    slot.armedEvents = events;
    epoll_event event = {};
    event.events = events;
    event.data.u64 = MakeToken(slot.GetGeneration(), index);
    return ::epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, slot.connection->GetFd(), &event) == 0;
}

void ConnectionSet::Close(uint32_t index)
{
    Slot& slot = (*this)[index];
    const PeerSocket fd = slot.connection->TakeFd();
    context_.accounts.NoteEnd();
    slot.connection.reset();
    slot.Free();
    Leave(index);
    // Last, so that a peer that sees the end and comes back at once finds the place free. A child that the service has
    // forked may hold a copy of the descriptor; the peer should see the end all the same.
    ::shutdown(fd.Get(), SHUT_RDWR);
}

void ConnectionSet::LetGo(uint32_t index)
{
    do {
        Arm(index, Connection::Next::TURN);
    } while (!(*this)[index].Release());
}

Account* ConnectionSet::Enter(const Caller& caller, uint32_t& index)
{
    for (int evictions = 0;; ++evictions) {
        uint32_t victim = 0;
        size_t held = 0;
        size_t allowed = 0;
        auto answer = Stock::Answer::TAKEN;
        {
            const MutexLock lock(mutex_);
            Account& account = context_.accounts.Open(caller.uid);
            Stock& stock = context_.accounts.connections;
            answer = stock.Take(account, account.connections, 1, allowed);
            if (answer == Stock::Answer::TAKEN) {
                return TakePlace(account, index);
            }
            const bool ofUser = answer == Stock::Answer::BEYOND_SHARE;
            held = ofUser ? account.connections.load() : stock.CountHeld();
            if (evictions == MAX_EVICTIONS || !FindLongestIdle(ofUser ? &account : nullptr, victim)) {
                context_.Refuse(account, ofUser ? Limit::CONNECTIONS_PER_USER : Limit::CONNECTIONS, caller, held,
                                ofUser ? allowed : context_.options.maxConnections);
                context_.accounts.Leave(account);
                return nullptr;
            }
        }
        Evict(victim);
    }
}

// For a connection that is counted; throws when there is no memory, and then it is not.
Account* ConnectionSet::TakePlace(Account& account, uint32_t& index)
{
    try {
        if (free_.empty()) {
            if (used_ % BLOCK_SIZE == 0) {
                blocks_[used_ / BLOCK_SIZE].store(new Slot[BLOCK_SIZE], std::memory_order_release);
            }
            free_.push_back(used_++);
        }
    } catch (const std::bad_alloc&) {
        context_.accounts.connections.Give(account.connections, 1);
        context_.accounts.Leave(account);
        throw;
    }
    index = free_.back();
    free_.pop_back();
    (*this)[index].account = &account;
    return &account;
}

void ConnectionSet::Leave(uint32_t index)
{
    const MutexLock lock(mutex_);
    Account& account = *std::exchange((*this)[index].account, nullptr);
    free_.push_back(index);
    context_.accounts.connections.Give(account.connections, 1);
    context_.accounts.Leave(account);
}

// Of that user, or, for null, of the user with the most connections that has an idle one.
bool ConnectionSet::FindLongestIdle(const Account* user, uint32_t& index)
{
    size_t most = 0;
    int64_t longest = 0;
    for (uint32_t candidate = 0; candidate < used_; ++candidate) {
        Slot& slot = (*this)[candidate];
        // A connection with a deadline has something in hand.
        if (slot.account == nullptr || (user != nullptr && slot.account != user) || !slot.IsIdle() ||
            slot.deadline.load() != 0) {
            continue;
        }
        const size_t count = slot.account->connections.load();
        const int64_t visit = slot.pace.lastVisit.load(std::memory_order_relaxed);
        if (count > most || (count == most && visit < longest)) {
            most = count;
            longest = visit;
            index = candidate;
        }
    }
    return most != 0;
}

// False when it was not idle after all. What has come in meanwhile is answered by a worker, which then sees the end.
bool ConnectionSet::Evict(uint32_t index)
{
    Slot& slot = (*this)[index];
    if (!slot.AcquireIdle()) {
        return false;
    }
    const int fd = slot.connection->GetFd();
    const bool isIdle = slot.deadline.load() == 0 && slot.connection->IsAtStart() && CountUnread(fd) == 0;
    if (isIdle) {
        ::shutdown(fd, SHUT_RD);
    }
    if (!isIdle || CountUnread(fd) != 0) {
        // Not the longest idle one any more.
        slot.pace.lastVisit.store(CoarseMilliseconds(), std::memory_order_relaxed);
        LetGo(index);
        return false;
    }
    Close(index);
    return true;
}

uint32_t ConnectionSet::CountUsed()
{
    const MutexLock lock(mutex_);
    return used_;
}

}  // namespace VARN::Host
