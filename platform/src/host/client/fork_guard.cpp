// SPDX-License-Identifier: Apache-2.0
#include "host/client/fork_guard.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <vector>

#include "host/base/unix_socket.h"
#include "host/log/log_writer.h"

namespace VARN::Host {

namespace {

// Counts the forks between the first process and this one.
std::atomic<uint32_t> processGeneration{0};

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

// Around the fork all locks are held, so that the child finds what they guard whole.
void BeforeFork() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    clientMutex.Lock();
    GetOpenLinks().mutex.Lock();
    LockLog();
}

void AfterForkInParent() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    UnlockLog();
    GetOpenLinks().mutex.Unlock();
    clientMutex.Unlock();
}

void AfterForkInChild() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    OpenLinks& links = GetOpenLinks();
    for (const int fd : links.fds) {
        ::close(fd);
    }
    links.fds.clear();
    // Relaxed: the child has one thread.
    processGeneration.fetch_add(1, std::memory_order_relaxed);
    ForgetOtherThreads();
    AfterForkInParent();
}

}  // namespace

void WatchForks()
{
    static const int registered = ::pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
    static_cast<void>(registered);
}

Mutex clientMutex;

LinkFd LinkFd::MakeSocket()
{
    WatchForks();
    LinkFd link;
    OpenLinks& links = GetOpenLinks();
    // Made under the lock, so that no fork comes before it is noted.
    const MutexLock lock(links.mutex);
    UniqueFd fd = MakeUnixSocket();
    if (fd) {
        links.fds.push_back(fd.Get());
        link.fd_ = std::move(fd);
        link.generation_ = processGeneration.load(std::memory_order_relaxed);
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

// Relaxed: the generation changes only in a child's first moments, when it has one thread.
bool LinkFd::IsOurs() const noexcept
{
    return generation_ == processGeneration.load(std::memory_order_relaxed);
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
