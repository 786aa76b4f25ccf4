// SPDX-License-Identifier: Apache-2.0
#include "host/client/channel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include "host/base/error_text.h"
#include "host/wire/socket_folder.h"
#include "parcel_buffer.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// Connections that are kept for later. More are made while more threads send at once, and closed afterwards: every one
// counts against what the service allows this user.
constexpr size_t MAX_IDLE_LINKS = 8;

// What the first receive of a reply takes in one system call; most replies are shorter.
constexpr size_t FIRST_PIECE_SIZE = 16384;

// Room for what is still to come of a reply: memory grows with what was received, not with what was announced, so that
// a hostile service cannot make the client allocate more than it sends.
constexpr size_t FIRST_ROOM_SIZE = 65536;

// How long to let a service work on its queue of new connections before trying to join it again.
constexpr std::chrono::milliseconds QUEUE_PAUSE{5};

// Waits for the socket. 0, ETIMEDOUT or another errno.
int Wait(int fd, short events, const Deadline& deadline)
{
    pollfd entry = {fd, events, 0};
    for (;;) {
        const int left = deadline.LeftMilliseconds();
        const int ready = ::poll(&entry, 1, left);
        if (ready > 0) {
            return 0;
        }
        if (ready == 0) {
            if (left == 0) {
                return ETIMEDOUT;
            }
        } else if (errno != EINTR) {
            return errno;
        }
    }
}

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

// One request and its reply on one connection. The steps return 0 or an errno.
class Channel::Call {
public:
    Call(int fd, const Deadline& deadline) : fd_(fd), deadline_(deadline) {}

    int Send(FrameHeader& header, const MessageParcel& data);
    int Receive(uint32_t code, MessageParcel& reply, int32_t& status);

    // Whether `Send` returned `error` because the service had closed the connection before it could get a byte.
    bool WasClosedBefore(int error) const noexcept { return !hasSent_ && (error == EPIPE || error == ECONNRESET); }

    // To be told when the connection's own time limit could not be set: nothing blocks then.
    void NeverBlock() noexcept { neverBlock_ = true; }

    // Why a step returned `error`.
    std::string GetReason(int error) const { return reason_ != nullptr ? reason_ : ErrorText(error); }

private:
    int ReceiveSome(void* to, size_t room, size_t& got);
    int ReceiveHeader(uint8_t* piece, size_t room, size_t& got);
    int ReceiveRest(MessageParcel& reply, size_t length);
    int Fail(int error, const char* what)
    {
        reason_ = what;
        return error;
    }

    const int fd_;
    const Deadline deadline_;
    bool hasSent_ = false;
    bool neverBlock_ = false;
    const char* reason_ = nullptr;
};

int Channel::Call::Send(FrameHeader& header, const MessageParcel& data)
{
    std::array<iovec, 2> pieces{
        {{&header, sizeof(header)}, {const_cast<uint8_t*>(ParcelBuffer::Data(data)), data.GetDataSize()}}};
    msghdr message = {};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    size_t left = pieces[0].iov_len + pieces[1].iov_len;
    for (;;) {
        const ssize_t sent = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EINTR && errno != EAGAIN) {
            return errno;
        }
        const bool full = sent < 0 && errno == EAGAIN;
        size_t done = sent < 0 ? 0 : static_cast<size_t>(sent);
        hasSent_ = hasSent_ || done != 0;
        left -= done;
        if (left == 0) {
            return 0;
        }
        for (iovec& piece : pieces) {
            const size_t part = std::min(done, piece.iov_len);
            piece.iov_base = static_cast<uint8_t*>(piece.iov_base) + part;
            piece.iov_len -= part;
            done -= part;
        }
        const int error = full ? Wait(fd_, POLLOUT, deadline_) : (deadline_.IsOver() ? ETIMEDOUT : 0);
        if (error != 0) {
            return error;
        }
    }
}

// Receives what is there, waiting for the first byte. End of file is an error here.
int Channel::Call::ReceiveSome(void* to, size_t room, size_t& got)
{
    // A receive that blocks saves a poll. SO_RCVTIMEO bounds it, by the whole of the wait time: so only at the
    // beginning.
    int flags = !neverBlock_ && deadline_.HasJustBegun() ? 0 : MSG_DONTWAIT;
    for (;;) {
        const ssize_t received = ::recv(fd_, to, room, flags);
        if (received > 0) {
            got = static_cast<size_t>(received);
            return 0;
        }
        if (received == 0) {
            return Fail(ECONNRESET, "the service closed the connection");
        }
        if (errno == EAGAIN || errno == EINTR) {
            const int error = Wait(fd_, POLLIN, deadline_);
            if (error != 0) {
                return error;
            }
            flags = MSG_DONTWAIT;
        } else {
            return errno;
        }
    }
}

int Channel::Call::ReceiveHeader(uint8_t* piece, size_t room, size_t& got)
{
    int error = ReceiveSome(piece, room, got);
    while (error == 0 && got < FRAME_HEADER_SIZE) {
        size_t more = 0;
        error = deadline_.IsOver() ? ETIMEDOUT : ReceiveSome(piece + got, room - got, more);
        got += more;
    }
    return error;
}

int Channel::Call::ReceiveRest(MessageParcel& reply, size_t length)
{
    while (reply.GetDataSize() < length) {
        const size_t room = std::min(length - reply.GetDataSize(), std::max(reply.GetDataSize(), FIRST_ROOM_SIZE));
        uint8_t* space = ParcelBuffer::Space(reply, room);
        if (space == nullptr) {
            return Fail(ENOMEM, "no memory for the reply");
        }
        size_t got = 0;
        const int error = deadline_.IsOver() ? ETIMEDOUT : ReceiveSome(space, room, got);
        if (error != 0) {
            return error;
        }
        ParcelBuffer::Commit(reply, got);
    }
    return 0;
}

int Channel::Call::Receive(uint32_t code, MessageParcel& reply, int32_t& status)
{
    alignas(FrameHeader) uint8_t piece[FIRST_PIECE_SIZE];
    size_t got = 0;
    const int error = ReceiveHeader(piece, sizeof(piece), got);
    if (error != 0) {
        return error;
    }
    FrameHeader header;
    std::memcpy(&header, piece, sizeof(header));
    const char* wrong = header.Check(FrameKind::REPLY);
    if (wrong == nullptr && header.code != code) {
        wrong = "it answers another request";
    }
    got -= sizeof(header);
    if (wrong == nullptr && got > header.length) {
        wrong = "there are bytes behind it";
    }
    if (wrong != nullptr) {
        return Fail(EPROTO, wrong);
    }
    if (header.length > ParcelBuffer::MaxCapacity(reply)) {
        return Fail(EMSGSIZE, "the reply is longer than a parcel may be");
    }
    ParcelBuffer::Clear(reply, 0);
    uint8_t* space = ParcelBuffer::Space(reply, got);
    if (space == nullptr) {
        return Fail(ENOMEM, "no memory for the reply");
    }
    std::memcpy(space, piece + sizeof(header), got);
    ParcelBuffer::Commit(reply, got);
    status = header.status;
    return ReceiveRest(reply, header.length);
}

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
    return dead_.load(std::memory_order_relaxed);
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
    // The folder was looked at by name, and whoever owns one above may have put another in its place since: so the peer
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
        // Another thread changed it meanwhile; nobody can say for whom the service takes this connection.
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

bool Channel::TakeIdle(Link& link)
{
    const MutexLock lock(clientMutex);
    if (idle_.empty()) {
        return false;
    }
    link = std::move(idle_.back());
    idle_.pop_back();
    return true;
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
    Link link;
    while (TakeIdle(link)) {
        if (link.fd.IsOurs() && IsAlive(link.fd.Get())) {
            link.checked = true;
            GiveBack(std::move(link));
            dead_.store(false, std::memory_order_relaxed);
            return 0;
        }
    }
    const int error = Connect(link, problem);
    dead_.store(error != 0, std::memory_order_relaxed);
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

// Takes an idle connection that is alive, or was when `Prepare` looked. One that was made as somebody else is closed: a
// program that gave up its privileges must not go on using them.
bool Channel::TakeAlive(Link& link)
{
    const Identity identity = Identity::Current();
    while (TakeIdle(link)) {
        if (link.fd.IsOurs() && link.identity == identity &&
            (std::exchange(link.checked, false) || IsAlive(link.fd.Get()))) {
            return true;
        }
    }
    return false;
}

// Has the socket itself bound what the call waits for.
void Channel::LimitWait(Link& link, Call& call, int32_t seconds)
{
    if (link.waitTimeSeconds == seconds) {
        return;
    }
    timeval limit = {};
    limit.tv_sec = seconds;
    if (::setsockopt(link.fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0) {
        link.waitTimeSeconds = seconds;
    } else {
        link.waitTimeSeconds = 0;
        call.NeverBlock();
    }
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
    const Deadline deadline(std::chrono::seconds(option.GetWaitTime()));
    FrameHeader header;
    header.code = code;
    header.length = static_cast<uint32_t>(data.GetDataSize());
    if (header.length != data.GetDataSize()) {
        return Report(code, "sending", IPC_TOO_LARGE, ErrorText(EMSGSIZE));
    }
    for (;;) {
        Link link;
        const bool isKept = TakeAlive(link);
        std::string problem;
        int error = isKept ? 0 : ConnectInTime(link, problem, deadline);
        if (error != 0) {
            return Report(code, "connecting", ToIpcCode(error), problem);
        }
        Call call(link.fd.Get(), deadline);
        LimitWait(link, call, option.GetWaitTime());
        const char* step = "sending";
        error = call.Send(header, data);
        if (isKept && call.WasClosedBefore(error)) {
            // The service was restarted since somebody looked. Nothing of the request has left, so it may be tried on
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
