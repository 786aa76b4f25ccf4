// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/host/caller.h"

namespace VARN::Host {

// While it exists, `CurrentCaller` on this thread gives `caller`, which must stay.
class CallerScope {
public:
    explicit CallerScope(const Caller& caller) noexcept;
    ~CallerScope();
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

private:
    const Caller* const outer_;
};

}  // namespace VARN::Host
