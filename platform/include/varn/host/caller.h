// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include "varn/export.h"

namespace VARN::Host {

// Who sent a request, as the kernel saw it when the connection was made. The numbers never come from the message and
// are never refreshed. Decide on the user id: the process of that number may be another by now.
struct Caller {
    // Process, user and group.
    pid_t pid;
    uid_t uid;
    gid_t gid;
};

// The caller of the request that this thread is handling; this process itself when the thread handles none. A request
// to an object of the same process changes nothing: the sender of the request that it is part of stays the caller. A
// thread that a service starts of its own handles none: pass the answer along.
VARN_API Caller CurrentCaller();

}  // namespace VARN::Host
