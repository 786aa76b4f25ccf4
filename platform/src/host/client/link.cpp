// SPDX-License-Identifier: Apache-2.0
#include "host/client/link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "host/base/unix_socket.h"
#include "host/wire/socket_folder.h"
#include "parcel_buffer.h"
#include "platform_log.h"

namespace VARN::Host {

Mutex clientMutex;

namespace {

// What the first receive of a reply takes in one system call; most replies are shorter.
constexpr size_t FIRST_PIECE_SIZE = 16384;

// Waits for the socket. 0, ETIMEDOUT or another errno.
int Wait(int fd, short events, const Deadline& deadline)
{
    pollfd entry = {fd, events, 0};
    int ready = 0;
    do {
        ready = ::poll(&entry, 1, deadline.LeftMilliseconds());
    } while (ready == 0 ? !deadline.IsOver() : ready < 0 && errno == EINTR);
    return ready > 0 ? 0 : ready == 0 ? ETIMEDOUT : errno;
}

}  // namespace

// Never destroyed: a fork may happen during static destruction.
std::vector<Link*>& Link::All()
{
    static auto& all = *new std::vector<Link*>;
    return all;
}

// The lock is held across the fork, so that the child finds what it guards whole.
ForkHandler Link::forkHandler_(ForkHandler::Rank::CONNECTIONS,
                               {[] { clientMutex.lock(); }, [] { clientMutex.unlock(); },
                                [] {
                                    for (Link* link : All()) {
                                        link->fd_ = {};
                                        link->isChecked = false;
                                    }
                                    clientMutex.unlock();
                                }});

Link::Link()
{
    const MutexLock lock(clientMutex);
    All().push_back(this);
}

Link::~Link()
{
    const MutexLock lock(clientMutex);
    All().erase(std::find(All().begin(), All().end(), this));
    fd_ = {};
}

int Link::Connect(const std::string& directory, const std::string& path, std::string& problem)
{
    sockaddr_un address;
    problem = MakeSocketAddress(path, address);
    if (!problem.empty()) {
        return ENAMETOOLONG;
    }
    const int unsafe = CheckSocketFolder(directory, problem);
    if (unsafe != 0) {
        return unsafe;
    }
    identity_ = CurrentIdentity();
    {
        // No fork comes before it is noted.
        const MutexLock lock(clientMutex);
        fd_ = MakeUnixSocket();
    }
    if (!fd_) {
        const int error = errno;
        problem = "a socket cannot be made: " + ErrorText(error);
        return error;
    }
    // It does not block, since a service that accepts nothing would hold a connect that does for ever.
    const auto* where = reinterpret_cast<const sockaddr*>(&address);
    if (TEMP_FAILURE_RETRY(::connect(fd_.Get(), where, sizeof(address))) != 0 || ::fcntl(fd_.Get(), F_SETFL, 0) != 0) {
        const int error = errno;
        problem = "connect to " + path + ": " + ErrorText(error);
        return error;
    }
    // The folder was looked at by name, and the owner of one above may have put another in its place since: so the peer
    // must be one to trust too.
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd_.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        const int error = errno;
        problem = "the service at " + path + " cannot be told: " + ErrorText(error);
        return error;
    }
    if (peer.uid != 0 && peer.uid != identity_.first) {
        problem = "the service at " + path + " runs as user " + std::to_string(peer.uid) + ", not as root or as user " +
                  std::to_string(identity_.first);
        return EPERM;
    }
    if (identity_ != CurrentIdentity()) {
        // Another thread changed it meanwhile; for whom the service takes this connection is not known.
        problem = "connect to " + path + ": this process became another user's meanwhile";
        return EAGAIN;
    }
    return 0;
}

bool Link::IsAlive() const
{
    char byte = 0;
    const ssize_t got = TEMP_FAILURE_RETRY(::recv(fd_.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT));
    if (got > 0) {
        PLATFORM_ERROR("a service sent bytes that nobody had asked for; the connection is dropped");
    }
    return got < 0 && errno == EAGAIN;
}

int Link::Send(const FrameHeader& header, const MessageParcel& data, const Deadline& deadline, size_t& sent)
{
    int error = 0;
    while (error == 0 && sent < sizeof(header) + header.length) {
        error = sent != 0 && deadline.IsOver() ? ETIMEDOUT : SendFrame(fd_.Get(), header, data, sent);
        error = error == EAGAIN ? Wait(fd_.Get(), POLLOUT, deadline) : error;
    }
    return error;
}

// Receives what is there, waiting for the first byte. End of file is an error here.
int Link::ReceiveSome(void* to, size_t room, const Deadline& deadline, size_t& got, std::string& problem)
{
    // A receive that blocks saves a poll. The socket bounds it by the whole of the wait time, which may thus pass
    // twice: so only at the beginning.
    const auto time = deadline.GetTime();
    const timeval limit = {std::chrono::duration_cast<std::chrono::seconds>(time).count(), 0};
    int flags = MSG_DONTWAIT;
    if (deadline.HasJustBegun() &&
        (waitTime_ == time || ::setsockopt(fd_.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0)) {
        waitTime_ = time;
        flags = 0;
    }
    for (;;) {
        const ssize_t received = ::recv(fd_.Get(), to, room, flags);
        if (received > 0) {
            got = static_cast<size_t>(received);
            return 0;
        }
        if (received == 0) {
            problem = "the service closed the connection";
            return ECONNRESET;
        }
        const int error = errno == EAGAIN || errno == EINTR ? Wait(fd_.Get(), POLLIN, deadline) : errno;
        if (error != 0) {
            return error;
        }
        flags = MSG_DONTWAIT;
    }
}

int Link::Receive(uint32_t code, const Deadline& deadline, MessageParcel& reply, int32_t& status, std::string& problem)
{
    using State = FrameReader::State;
    ParcelBuffer::Clear(reply, 0);
    FrameReader reader(FrameKind::REPLY, reply);
    uint8_t piece[FIRST_PIECE_SIZE];
    size_t got = 0;
    size_t taken = 0;
    int error = ReceiveSome(piece, sizeof(piece), deadline, got, problem);
    if (error != 0) {
        return error;
    }
    State state = reader.Feed(piece, got, taken);
    const bool isMore = taken < got;
    while (state == State::PARTIAL) {
        size_t room = 0;
        uint8_t* space = reader.Space(room);
        if (space == nullptr) {
            state = State::NO_MEMORY;
            break;
        }
        error = deadline.IsOver() ? ETIMEDOUT : ReceiveSome(space, room, deadline, got, problem);
        if (error != 0) {
            return error;
        }
        state = reader.Commit(got);
    }
    const std::tuple<bool, int, const char*> faults[] = {
        {state == State::INVALID, EPROTO, reader.GetProblem()},
        {state == State::TOO_LONG, EMSGSIZE, "the reply is longer than a parcel may be"},
        {state == State::NO_MEMORY, ENOMEM, "no memory for the reply"},
        {reader.GetHeader().code != code, EPROTO, "it answers another request"},
        {isMore, EPROTO, "there are bytes behind it"}};
    for (const auto& [isThere, cause, text] : faults) {
        if (isThere) {
            problem = text;
            return cause;
        }
    }
    status = reader.GetHeader().status;
    return 0;
}

}  // namespace VARN::Host
