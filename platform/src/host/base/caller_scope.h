// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>

#include "varn/host/caller.h"

namespace VARN::Host {

// While it exists, this thread handles a request of `caller`, which must stay: `CurrentCaller` gives it, and the lines
// that the thread logs count against what that user may make this process write.
class CallerScope {
public:
    explicit CallerScope(const Caller& caller) noexcept : outer_(std::exchange(current_, &caller)) {}
    ~CallerScope() { current_ = outer_; }
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

    // Whose request this thread handles; null: none.
    static const Caller* Current() noexcept { return current_; }

private:
    static inline thread_local const Caller* current_ = nullptr;

    const Caller* const outer_;
};

}  // namespace VARN::Host
