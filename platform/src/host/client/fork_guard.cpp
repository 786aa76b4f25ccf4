// SPDX-License-Identifier: Apache-2.0
#include "host/client/fork_guard.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "host/base/process.h"
#include "host/base/unix_socket.h"
#include "varn/fork_handler.h"

namespace VARN::Host {

Mutex clientMutex;

namespace {

// The descriptors of all LinkFds. Never destroyed: a fork may happen during static destruction.
std::vector<int>& OpenLinks() REQUIRES(clientMutex)
{
    static auto& links = *new std::vector<int>;
    return links;
}

void CloseLinksInChild() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    std::for_each(OpenLinks().begin(), OpenLinks().end(), ::close);
    OpenLinks().clear();
    clientMutex.unlock();
}

// Held across the fork, so that the child finds what it guards whole.
const ForkHandler forkHandler(ForkHandler::Rank::CONNECTIONS,
                              {[] { clientMutex.lock(); }, [] { clientMutex.unlock(); }, CloseLinksInChild});

}  // namespace

LinkFd LinkFd::MakeSocket()
{
    LinkFd link;
    // Made under the lock, so that no fork comes before it is noted.
    const MutexLock lock(clientMutex);
    UniqueFd fd = MakeUnixSocket();
    if (fd) {
        OpenLinks().push_back(fd.Get());
        link.fd_ = std::move(fd);
        link.generation_ = ProcessGeneration();
    }
    return link;
}

LinkFd& LinkFd::operator=(LinkFd&& other) noexcept
{
    std::swap(fd_, other.fd_);
    std::swap(generation_, other.generation_);
    return *this;
}

LinkFd::~LinkFd()
{
    if (!fd_) {
        return;
    }
    if (!IsOurs()) {
        // Closed at the fork; the number may be another file's by now.
        static_cast<void>(fd_.Release());
        return;
    }
    const MutexLock lock(clientMutex);
    OpenLinks().erase(std::remove(OpenLinks().begin(), OpenLinks().end(), fd_.Get()), OpenLinks().end());
    fd_.Reset();
}

bool LinkFd::IsOurs() const noexcept
{
    return generation_ == ProcessGeneration();
}

}  // namespace VARN::Host
