// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <utility>

#include "host/base/caller_scope.h"

namespace VARN::Host {

namespace {

thread_local const Caller* currentCaller = nullptr;

}  // namespace

CallerScope::CallerScope(const Caller& caller) noexcept : outer_(std::exchange(currentCaller, &caller)) {}

CallerScope::~CallerScope()
{
    currentCaller = outer_;
}

const Caller* CallerScope::Current() noexcept
{
    return currentCaller;
}

Caller CurrentCaller()
{
    return currentCaller != nullptr ? *currentCaller : Caller{::getpid(), ::geteuid(), ::getegid()};
}

}  // namespace VARN::Host
