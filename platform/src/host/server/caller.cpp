// SPDX-License-Identifier: Apache-2.0
#include "varn/host/caller.h"

#include <unistd.h>

#include "host/server/caller_scope.h"

namespace VARN::Host {

namespace {

thread_local const Caller* currentCaller = nullptr;

}  // namespace

CallerScope::CallerScope(const Caller& caller) noexcept : outer_(currentCaller), owner_(caller.uid)
{
    currentCaller = &caller;
}

CallerScope::~CallerScope()
{
    currentCaller = outer_;
}

Caller CurrentCaller()
{
    return currentCaller != nullptr ? *currentCaller : Caller{::getpid(), ::geteuid(), ::getegid()};
}

}  // namespace VARN::Host
