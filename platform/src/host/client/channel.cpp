// SPDX-License-Identifier: Apache-2.0
#include "host/client/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <new>
#include <thread>
#include <utility>

#include "host/base/error_text.h"
#include "host/client/call.h"
#include "host/wire/socket_folder.h"
#include "parcel_buffer.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// Connections that are kept for later. More are made while more threads send at once, and closed afterwards: every one
// counts against what the service allows this user.
constexpr size_t MAX_IDLE_LINKS = 8;

// How long to let a service work on its queue of new connections before trying to join it again.
constexpr std::chrono::milliseconds QUEUE_PAUSE{5};

// The service that this thread has found and not asked yet: to this thread it is alive, whatever others meet.
thread_local const Channel* found = nullptr;

// Whether an idle connection can carry a request: the peer has neither closed it nor said anything unasked.
bool IsAlive(int fd)
{
    char byte = 0;
    ssize_t got = 0;
    do {
        got = ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        PLATFORM_ERROR("a service sent bytes that nobody had asked for; the connection is dropped");
    }
    return got < 0 && errno == EAGAIN;
}

int32_t ToIpcCode(int error)
{
    switch (error) {
        case ETIMEDOUT:
            return IPC_TIMED_OUT;
        case ENOMEM:
        case ENOBUFS:
            return IPC_NO_MEMORY;
        case EPROTO:
            return IPC_PROTOCOL_ERROR;
        case EMSGSIZE:
            return IPC_TOO_LARGE;
        default:
            return IPC_DEAD_OBJECT;
    }
}

}  // namespace

Channel::Channel(std::string directory, int32_t id)
    : directory_(std::move(directory)), path_(SocketPath(directory_, id))
{
    // Giving a connection back never needs memory.
    idle_.reserve(MAX_IDLE_LINKS);
}

Channel::Identity Channel::Identity::Current()
{
    return {::geteuid(), ::getegid()};
}

bool Channel::IsObjectDead() const
{
    return found != this && dead_.load(std::memory_order_relaxed);
}

int Channel::Connect(Link& link, std::string& problem) const
{
    sockaddr_un address;
    problem = MakeSocketAddress(path_, address);
    if (!problem.empty()) {
        return ENAMETOOLONG;
    }
    const int unsafe = CheckSocketFolder(directory_, problem);
    if (unsafe != 0) {
        return unsafe;
    }
    const Identity identity = Identity::Current();
    LinkFd fd = LinkFd::MakeSocket();
    if (!fd) {
        const int error = errno;
        problem = "a socket cannot be made: " + ErrorText(error);
        return error;
    }
    // It does not block, since a service that accepts nothing would hold a connect that does for ever.
    int result = 0;
    do {
        result = ::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    if (result != 0 || ::fcntl(fd.Get(), F_SETFL, 0) != 0) {
        const int error = errno;
        problem = "connect to " + path_ + ": " + ErrorText(error);
        return error;
    }
    // The folder was looked at by name, and the owner of one above may have put another in its place since: so the peer
    // must be one to trust too.
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(fd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        const int error = errno;
        problem = "the service at " + path_ + " cannot be told: " + ErrorText(error);
        return error;
    }
    if (peer.uid != 0 && peer.uid != identity.uid) {
        problem = "the service at " + path_ + " runs as user " + std::to_string(peer.uid) +
                  ", not as root or as user " + std::to_string(identity.uid);
        return EPERM;
    }
    if (!(identity == Identity::Current())) {
        // Another thread changed it meanwhile; for whom the service takes this connection is not known.
        problem = "connect to " + path_ + ": this process became another user's meanwhile";
        return EAGAIN;
    }
    link = Link();
    link.fd = std::move(fd);
    link.identity = identity;
    return 0;
}

// The same, but as long as nothing is wrong except that too many wait to be accepted it waits too.
int Channel::ConnectInTime(Link& link, std::string& problem, const Deadline& deadline) const
{
    int error = Connect(link, problem);
    while (error == EAGAIN && !deadline.IsOver()) {
        std::this_thread::sleep_for(QUEUE_PAUSE);
        error = Connect(link, problem);
    }
    return error == EAGAIN ? ETIMEDOUT : error;
}

Channel::Link Channel::TakeIdle()
{
    Link link;
    const MutexLock lock(clientMutex);
    if (!idle_.empty()) {
        link = std::move(idle_.back());
        idle_.pop_back();
    }
    return link;
}

void Channel::GiveBack(Link&& link)
{
    const MutexLock lock(clientMutex);
    if (idle_.size() < MAX_IDLE_LINKS) {
        idle_.push_back(std::move(link));
    }
}

int Channel::Prepare(std::string& problem)
{
    Link link = TakeIdle();
    while (link.fd && !(link.fd.IsOurs() && IsAlive(link.fd.Get()))) {
        link = TakeIdle();
    }
    const int error = link.fd ? 0 : Connect(link, problem);
    dead_.store(error != 0, std::memory_order_relaxed);
    found = error == 0 ? this : nullptr;
    if (error == 0) {
        link.checked = true;
        GiveBack(std::move(link));
    }
    return error;
}

int32_t Channel::Report(uint32_t code, const char* step, int32_t ipcCode, const std::string& reason)
{
    dead_.store(ipcCode == IPC_DEAD_OBJECT, std::memory_order_relaxed);
    PLATFORM_ERROR("request %u to %s failed while %s: %s", code, path_.c_str(), step, reason.c_str());
    return ipcCode;
}

// Takes an idle connection that is alive, or was when `Prepare` looked. One that was made as another user is closed: a
// program that gave up its privileges must not go on using them.
Channel::Link Channel::TakeAlive()
{
    const Identity identity = Identity::Current();
    Link link = TakeIdle();
    while (link.fd && !(link.fd.IsOurs() && link.identity == identity &&
                        (std::exchange(link.checked, false) || IsAlive(link.fd.Get())))) {
        link = TakeIdle();
    }
    return link;
}

// Has the socket itself bound what a receive waits for. False when it refuses.
bool Channel::LimitWait(Link& link, int32_t seconds)
{
    const timeval limit = {seconds, 0};
    if (link.waitTimeSeconds != seconds &&
        ::setsockopt(link.fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0) {
        link.waitTimeSeconds = seconds;
    }
    return link.waitTimeSeconds == seconds;
}

int32_t Channel::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    try {
        return Send(code, data, reply, option);
    } catch (const std::bad_alloc&) {
        ParcelBuffer::Clear(reply, 0);
        PLATFORM_ERROR("request %u failed: out of memory", code);
        return IPC_NO_MEMORY;
    }
}

int32_t Channel::Send(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    found = nullptr;
    const Deadline deadline(std::chrono::seconds(option.GetWaitTime()));
    FrameHeader header;
    header.code = code;
    header.length = static_cast<uint32_t>(data.GetDataSize());
    if (header.length != data.GetDataSize()) {
        return Report(code, "sending", IPC_TOO_LARGE, ErrorText(EMSGSIZE));
    }
    for (;;) {
        Link link = TakeAlive();
        const bool isKept = static_cast<bool>(link.fd);
        std::string problem;
        int error = isKept ? 0 : ConnectInTime(link, problem, deadline);
        if (error != 0) {
            return Report(code, "connecting", ToIpcCode(error), problem);
        }
        Call call(link.fd.Get(), deadline, LimitWait(link, option.GetWaitTime()));
        const char* step = "sending";
        error = call.Send(header, data);
        if (isKept && call.WasClosedBefore(error)) {
            // The service was restarted since the last look. Nothing of the request has left, so it may be tried on
            // the next connection; there are fewer each time, and a new one is not tried again.
            continue;
        }
        int32_t status = 0;
        if (error == 0) {
            step = "receiving";
            error = call.Receive(code, reply, status);
        }
        if (error != 0) {
            ParcelBuffer::Clear(reply, 0);
            return Report(code, step, ToIpcCode(error), call.GetReason(error));
        }
        dead_.store(false, std::memory_order_relaxed);
        GiveBack(std::move(link));
        return status;
    }
}

}  // namespace VARN::Host
