// SPDX-License-Identifier: Apache-2.0
#include "host/server/peer_socket.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "host/base/process.h"
#include "host/base/thread_safety.h"
#include "host/base/unix_socket.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// Closes one socket after the other on a thread that ends when there are no more. Nothing waits for it, not even the
// end of the server: the process's own end closes what is left without waiting.
class Closer {
public:
    static void Take(UniqueFd socket) noexcept
    {
        // Signals are the business of the program's own threads.
        sigset_t all;
        sigset_t before;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
        try {
            Closer& closer = Get();
            const MutexLock lock(closer.mutex_);
            closer.waiting_.push_back(std::move(socket));
            if (!closer.isRunning_) {
                std::thread(&Closer::Run, &closer).detach();
                closer.isRunning_ = true;
            }
        } catch (const std::system_error& error) {
            // It stays in the list until there is a thread again.
            PLATFORM_ERROR("no thread to close a connection: %s", error.what());
        } catch (const std::exception&) {
            // No memory: it is closed here.
        }
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

private:
    // Never destroyed: the thread may be at work when the program ends. The child of a fork has one of its own.
    static Closer& Get()
    {
        static std::atomic<Closer*> current{nullptr};
        Closer* known = current.load();
        if (known == nullptr || known->generation_ != ProcessGeneration()) {
            auto fresh = std::make_unique<Closer>();
            known = current.compare_exchange_strong(known, fresh.get()) ? fresh.release() : known;
        }
        return *known;
    }

    void Run()
    {
        for (bool isRunning = true; isRunning;) {
            std::vector<UniqueFd> closedHere;
            const MutexLock lock(mutex_);
            closedHere.swap(waiting_);
            isRunning = isRunning_ = !closedHere.empty();
        }
    }

    const uint32_t generation_ = ProcessGeneration();
    Mutex mutex_;
    std::vector<UniqueFd> waiting_ GUARDED_BY(mutex_);
    bool isRunning_ GUARDED_BY(mutex_) = false;
};

}  // namespace

PeerSocket::PeerSocket(UniqueFd socket) noexcept : socket_(std::move(socket))
{
    AskKernel();
}

PeerSocket& PeerSocket::operator=(PeerSocket other) noexcept
{
    std::swap(socket_, other.socket_);
    std::swap(mayCarryDescriptors_, other.mayCarryDescriptors_);
    return *this;
}

PeerSocket::~PeerSocket()
{
    if (socket_ && mayCarryDescriptors_) {
        ::shutdown(socket_.Get(), SHUT_RDWR);
        // From now on nothing comes in; descriptors are among what has not been read, if anywhere.
        if (CountUnread(socket_.Get()) != 0) {
            Closer::Take(std::move(socket_));
        }
    }
}

// A connection has from its first moment on what the listening socket had then.
void PeerSocket::AskKernel() noexcept
{
    int isOn = 1;
    socklen_t size = sizeof(isOn);
    mayCarryDescriptors_ = ::getsockopt(socket_.Get(), SOL_SOCKET, PASS_RIGHTS, &isOn, &size) != 0 || isOn != 0;
}

void PeerSocket::RefuseDescriptors() noexcept
{
    const int off = 0;
    ::setsockopt(socket_.Get(), SOL_SOCKET, PASS_RIGHTS, &off, sizeof(off));
    AskKernel();
}

ssize_t PeerSocket::Receive(void* to, size_t room) const noexcept
{
    if (mayCarryDescriptors_) {
        // Looked at first: the thread that receives descriptors, wanted or not, has to close them.
        iovec piece = {to, room};
        msghdr message = {};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        const ssize_t seen = ::recvmsg(socket_.Get(), &message, MSG_PEEK | MSG_DONTWAIT);
        if (seen <= 0) {
            return seen;
        }
        if ((message.msg_flags & MSG_CTRUNC) != 0) {
            errno = EPERM;
            return -1;
        }
        room = static_cast<size_t>(seen);
    }
    return ::recv(socket_.Get(), to, room, MSG_DONTWAIT);
}

}  // namespace VARN::Host
