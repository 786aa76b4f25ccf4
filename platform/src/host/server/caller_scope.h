// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/log/line_owner.h"
#include "varn/host/caller.h"

namespace VARN::Host {

// While it exists, `CurrentCaller` on this thread gives `caller`, which must stay, and the lines that this
// thread logs are caused by that user.
class CallerScope {
public:
    explicit CallerScope(const Caller& caller) noexcept;
    ~CallerScope();
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

private:
    const Caller* const outer_;
    const LineOwnerScope owner_;
};

}  // namespace VARN::Host
