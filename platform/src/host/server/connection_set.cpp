// SPDX-License-Identifier: Apache-2.0
#include "host/server/connection_set.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "host/base/error_text.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

constexpr uint32_t INPUT_EVENTS = EPOLLIN | EPOLLRDHUP | EPOLLET;
constexpr uint32_t OUTPUT_EVENTS = EPOLLOUT | EPOLLRDHUP | EPOLLET;
// A socket is nearly always writable, so arming for both brings the next turn at once.
constexpr uint32_t TURN_EVENTS = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;

constexpr uint32_t STAY_EVENTS = EPOLLET;

uint32_t EventsFor(Connection::Next next)
{
    return next == Connection::Next::OUTPUT ? OUTPUT_EVENTS
           : next == Connection::Next::TURN ? TURN_EVENTS
                                            : INPUT_EVENTS;
}

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
    UserAccount* account = Enter(caller, index);
    if (account == nullptr) {
        return;
    }
    Slot& slot = (*this)[index];
    const int number = fd.Get();
    slot.connection.reset(new (std::nothrow) Connection(std::move(fd), caller, *account, slot.deadline));
    if (!slot.connection) {
        PLATFORM_ERROR("service %d: no memory for a connection of uid %u", context_.id, caller.uid);
        Leave(caller, *account, index);
        return;
    }
    slot.armedEvents = INPUT_EVENTS;
    slot.pace = Pace();
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
    if (events == slot.armedEvents && events != TURN_EVENTS) {
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
    const Caller caller = slot.connection->GetCaller();
    UserAccount& account = slot.connection->GetAccount();
    const PeerSocket fd = slot.connection->TakeFd();
    slot.connection.reset();
    slot.Free();
    Leave(caller, account, index);
    // Last, so that a peer that sees the end and comes back at once finds the place free. A child that the service has
    // forked may hold a copy of the descriptor; the peer should see the end all the same.
    ::shutdown(fd.Get(), SHUT_RDWR);
}

void ConnectionSet::LetGo(uint32_t index)
{
    bool hangUp = false;
    do {
        Arm(index, Connection::Next::TURN);
    } while (!(*this)[index].Release(hangUp));
}

UserAccount* ConnectionSet::Enter(const Caller& caller, uint32_t& index)
{
    const size_t limit = context_.options.maxConnections;
    const size_t limitOfUser = context_.options.maxConnectionsPerUser;
    size_t ofUser = 0;
    {
        const MutexLock lock(mutex_);
        std::unique_ptr<UserAccount>& account = accounts_[caller.uid];
        if (!account) {
            account = std::make_unique<UserAccount>();
        }
        ofUser = account->connections;
        const bool full = free_.empty() && used_ == limit;
        if (!full && ofUser < limitOfUser) {
            if (free_.empty()) {
                if (used_ % BLOCK_SIZE == 0) {
                    blocks_[used_ / BLOCK_SIZE].store(new Slot[BLOCK_SIZE], std::memory_order_release);
                }
                free_.push_back(used_++);
            }
            ++account->connections;
            index = free_.back();
            free_.pop_back();
            return account.get();
        }
        if (ofUser == 0) {
            accounts_.erase(caller.uid);
        }
    }
    if (ofUser >= limitOfUser) {
        context_.refusals.Report(Limit::CONNECTIONS_PER_USER, caller, ofUser, limitOfUser);
    } else {
        context_.refusals.Report(Limit::CONNECTIONS, caller, limit, limit);
    }
    return nullptr;
}

void ConnectionSet::Leave(const Caller& caller, UserAccount& account, uint32_t index)
{
    const MutexLock lock(mutex_);
    free_.push_back(index);
    if (--account.connections == 0) {
        accounts_.erase(caller.uid);
    }
}

uint32_t ConnectionSet::CountUsed()
{
    const MutexLock lock(mutex_);
    return used_;
}

}  // namespace VARN::Host
