// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "varn/host/caller.h"

namespace VARN::Host {

// How many forks lie between the first process and this one. What was made under another number belongs to an ancestor:
// its threads are not here, and its sockets and files are not this process's to end.
//
// Thread safety: may be called from any thread.
uint32_t ProcessGeneration() noexcept;

// While it exists, this thread handles a request of `caller`, which must stay: `CurrentCaller` gives it, and the lines
// that the thread logs count against what that user may make this process write. One at a time: a worker takes no
// request while it runs another.
class CallerScope {
public:
    explicit CallerScope(const Caller& caller) noexcept { current_ = &caller; }
    ~CallerScope() { current_ = nullptr; }
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

    // Whose request this thread handles; null: none.
    static const Caller* Current() noexcept { return current_; }

private:
    static inline thread_local const Caller* current_ = nullptr;
};

}  // namespace VARN::Host
