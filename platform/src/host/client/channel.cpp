// SPDX-License-Identifier: Apache-2.0
#include "host/client/channel.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <thread>
#include <utility>

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
thread_local const Channel* foundLast = nullptr;

int32_t ToIpcCode(int error)
{
    constexpr std::pair<int, IpcCode> CODES[] = {{ETIMEDOUT, IPC_TIMED_OUT},
                                                 {ENOMEM, IPC_NO_MEMORY},
                                                 {ENOBUFS, IPC_NO_MEMORY},
                                                 {EPROTO, IPC_PROTOCOL_ERROR},
                                                 {EMSGSIZE, IPC_TOO_LARGE}};
    const auto* known =
        std::find_if(std::begin(CODES), std::end(CODES), [error](auto code) { return code.first == error; });
    return known != std::end(CODES) ? known->second : IPC_DEAD_OBJECT;
}

}  // namespace

Channel::Channel(std::string directory, int32_t id)
    : directory_(std::move(directory)), path_(SocketPath(directory_, id))
{
    // Giving a connection back never needs memory.
    idle_.reserve(MAX_IDLE_LINKS);
}

bool Channel::IsObjectDead() const
{
    return foundLast != this && dead_.load(std::memory_order_relaxed);
}

// Takes an idle connection that is alive; null when there is none. For a request, `user` says as whom: one that was
// made as another is closed, since a program that gave up its privileges must not go on using them, and that `Prepare`
// has looked is enough.
std::unique_ptr<Link> Channel::TakeAlive(const Link::Identity* user)
{
    for (;;) {
        std::unique_ptr<Link> link;
        {
            const MutexLock lock(clientMutex);
            if (idle_.empty()) {
                return nullptr;
            }
            link = std::move(idle_.back());
            idle_.pop_back();
        }
        const bool mayTrust = std::exchange(link->isChecked, false) && user != nullptr;
        if ((user == nullptr || link->GetIdentity() == *user) && (mayTrust || link->IsAlive())) {
            return link;
        }
    }
}

void Channel::GiveBack(std::unique_ptr<Link>&& link)
{
    const MutexLock lock(clientMutex);
    if (idle_.size() < MAX_IDLE_LINKS) {
        idle_.push_back(std::move(link));
    }
}

int Channel::Prepare(std::string& problem)
{
    int error = 0;
    std::unique_ptr<Link> link = TakeAlive(nullptr);
    if (!link) {
        link = std::make_unique<Link>();
        error = link->Connect(directory_, path_, problem);
    }
    dead_.store(error != 0, std::memory_order_relaxed);
    foundLast = error == 0 ? this : nullptr;
    if (error == 0) {
        link->isChecked = true;
        GiveBack(std::move(link));
    }
    return error;
}

int32_t Channel::Report(uint32_t code, const char* step, int error, const std::string& problem)
{
    const int32_t ipcCode = ToIpcCode(error);
    dead_.store(ipcCode == IPC_DEAD_OBJECT, std::memory_order_relaxed);
    PLATFORM_ERROR("request %u to %s failed while %s: %s", code, path_.c_str(), step,
                   (problem.empty() ? ErrorText(error) : problem).c_str());
    return ipcCode;
}

int32_t Channel::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
try {
    foundLast = nullptr;
    const Deadline deadline(std::chrono::seconds(option.GetWaitTime()));
    FrameHeader header;
    header.code = code;
    header.length = static_cast<uint32_t>(data.GetDataSize());
    if (header.length != data.GetDataSize()) {
        return Report(code, "sending", EMSGSIZE, {});
    }
    for (;;) {
        const char* step = "connecting";
        std::string problem;
        int error = 0;
        const Link::Identity user = Link::CurrentIdentity();
        std::unique_ptr<Link> link = TakeAlive(&user);
        const bool isKept = link != nullptr;
        if (!isKept) {
            link = std::make_unique<Link>();
            error = link->Connect(directory_, path_, problem);
            if (error == EAGAIN && !deadline.IsOver()) {
                // Too many wait to be accepted: the request waits too.
                std::this_thread::sleep_for(QUEUE_PAUSE);
                continue;
            }
            error = error == EAGAIN ? ETIMEDOUT : error;
        }
        if (error == 0) {
            step = "sending";
            size_t sent = 0;
            error = link->Send(header, data, deadline, sent);
            if (isKept && sent == 0 && (error == EPIPE || error == ECONNRESET)) {
                // The service was restarted since the last look. Nothing of the request has left, so it may be tried on
                // the next connection; there are fewer each time, and a new one is not tried again.
                continue;
            }
        }
        int32_t status = 0;
        if (error == 0) {
            step = "receiving";
            error = link->Receive(code, deadline, reply, status, problem);
        }
        if (error != 0) {
            ParcelBuffer::Clear(reply, 0);
            return Report(code, step, error, problem);
        }
        dead_.store(false, std::memory_order_relaxed);
        GiveBack(std::move(link));
        return status;
    }
} catch (const std::bad_alloc&) {
    ParcelBuffer::Clear(reply, 0);
    PLATFORM_ERROR("request %u failed: out of memory", code);
    return IPC_NO_MEMORY;
}

}  // namespace VARN::Host
