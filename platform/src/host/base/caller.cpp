// SPDX-License-Identifier: Apache-2.0
#include "varn/host/caller.h"

#include <unistd.h>

#include "host/base/caller_scope.h"

namespace VARN::Host {

Caller CurrentCaller()
{
    const Caller* current = CallerScope::Current();
    return current != nullptr ? *current : Caller{::getpid(), ::geteuid(), ::getegid()};
}

}  // namespace VARN::Host
