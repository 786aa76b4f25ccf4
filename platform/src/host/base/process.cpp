// SPDX-License-Identifier: Apache-2.0
#include "host/base/process.h"

#include <unistd.h>

#include <atomic>

#include "varn/fork_handler.h"

namespace VARN::Host {

namespace {

// Relaxed throughout: it changes only in a child's first moments, when it has one thread.
std::atomic<uint32_t> generation{0};

// The first of all, so that the others find the child's own number.
const ForkHandler processForkHandler(ForkHandler::Rank::LIBRARY,
                                     {nullptr, nullptr, [] { generation.fetch_add(1, std::memory_order_relaxed); }});

}  // namespace

uint32_t ProcessGeneration() noexcept
{
    return generation.load(std::memory_order_relaxed);
}

Caller CurrentCaller()
{
    const Caller* current = CallerScope::Current();
    return current != nullptr ? *current : Caller{::getpid(), ::geteuid(), ::getegid()};
}

}  // namespace VARN::Host
