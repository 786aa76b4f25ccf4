// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace VARN::Host {

// While it exists, the lines that this thread logs are caused by a request of `uid`: they count against what one user
// may make this process write.
class LineOwnerScope {
public:
    explicit LineOwnerScope(uid_t uid) noexcept;
    ~LineOwnerScope();
    LineOwnerScope(const LineOwnerScope&) = delete;
    LineOwnerScope& operator=(const LineOwnerScope&) = delete;

private:
    const LineOwnerScope* const outer_;
    const uid_t uid_;

    friend const uid_t* LineOwner() noexcept;
};

// Whose lines this thread writes; null: nobody's but the program's own.
const uid_t* LineOwner() noexcept;

}  // namespace VARN::Host
