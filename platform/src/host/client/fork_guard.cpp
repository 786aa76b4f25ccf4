// SPDX-License-Identifier: Apache-2.0
#include "host/client/fork_guard.h"

#include <algorithm>
#include <new>
#include <vector>

#include "host/base/process.h"
#include "host/base/unix_socket.h"
#include "varn/fork_handler.h"

namespace VARN::Host {

namespace {

struct OpenLinks {
    Mutex mutex;
    std::vector<int> fds GUARDED_BY(mutex);
};

// Never destroyed: a fork may happen during static destruction.
OpenLinks& GetOpenLinks()
{
    alignas(OpenLinks) static unsigned char storage[sizeof(OpenLinks)];
    static OpenLinks& links = *new (storage) OpenLinks;
    return links;
}

// Held across the fork, so that the child finds what they guard whole.
void LockLinks() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    clientMutex.Lock();
    GetOpenLinks().mutex.Lock();
}

void UnlockLinks() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    GetOpenLinks().mutex.Unlock();
    clientMutex.Unlock();
}

void CloseLinksInChild() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    OpenLinks& links = GetOpenLinks();
    for (const int fd : links.fds) {
        ::close(fd);
    }
    links.fds.clear();
    UnlockLinks();
}

const ForkHandler forkHandler(ForkHandler::Rank::CONNECTIONS, {LockLinks, UnlockLinks, CloseLinksInChild});

}  // namespace

Mutex clientMutex;

LinkFd LinkFd::MakeSocket()
{
    LinkFd link;
    OpenLinks& links = GetOpenLinks();
    // Made under the lock, so that no fork comes before it is noted.
    const MutexLock lock(links.mutex);
    UniqueFd fd = MakeUnixSocket();
    if (fd) {
        links.fds.push_back(fd.Get());
        link.fd_ = std::move(fd);
        link.generation_ = ProcessGeneration();
    }
    return link;
}

LinkFd::LinkFd(LinkFd&& other) noexcept : fd_(std::move(other.fd_)), generation_(other.generation_) {}

LinkFd& LinkFd::operator=(LinkFd&& other) noexcept
{
    Close();
    fd_ = std::move(other.fd_);
    generation_ = other.generation_;
    return *this;
}

bool LinkFd::IsOurs() const noexcept
{
    return generation_ == ProcessGeneration();
}

void LinkFd::Close() noexcept
{
    if (!fd_) {
        return;
    }
    if (!IsOurs()) {
        // Closed at the fork; the number may belong to somebody else by now.
        static_cast<void>(fd_.Release());
        return;
    }
    OpenLinks& links = GetOpenLinks();
    const MutexLock lock(links.mutex);
    links.fds.erase(std::remove(links.fds.begin(), links.fds.end(), fd_.Get()), links.fds.end());
    fd_.Reset();
}

}  // namespace VARN::Host
