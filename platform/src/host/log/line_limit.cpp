// SPDX-License-Identifier: Apache-2.0
#include "host/log/line_limit.h"

#include <algorithm>

namespace VARN::Host {

bool LineLimit::Take(const uid_t* owner, time_t second) noexcept
{
    if (owner == nullptr || limit_ == 0) {
        return true;
    }
    const auto end = windows_.begin() + static_cast<std::ptrdiff_t>(used_);
    auto window = std::find_if(windows_.begin(), end, [owner](const Window& known) { return known.uid == *owner; });
    if (window == end) {
        if (used_ < MAX_USERS) {
            windows_[used_++] = {*owner, second, 0};
        }
        window = &windows_[used_ - 1];
    }
    return ++window->lines <= limit_;
}

bool LineLimit::TakeCount(time_t second, uid_t& uid, uint64_t& leftOut) noexcept
{
    // From behind, since the last one takes the place of one that goes.
    for (size_t index = used_; index-- > 0;) {
        const Window window = windows_[index];
        if (window.second == second) {
            continue;
        }
        windows_[index] = windows_[--used_];
        if (window.lines > limit_) {
            uid = window.uid;
            leftOut = window.lines - limit_;
            return true;
        }
    }
    return false;
}

}  // namespace VARN::Host
