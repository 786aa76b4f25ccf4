// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace VARN::Host {

// How many lines the requests of each user may cause in a second. Without it an app whose valid requests cause a line
// each fills the disk or the pipe, or uses up what the journal takes from this program, and the lines that matter are
// lost.
//
// Thread safety: none.
class LineLimit {
public:
    static constexpr size_t MAX_LINES_PER_SECOND = 100;

    // 0: none.
    void Set(size_t linesPerSecond) noexcept { limit_ = linesPerSecond; }

    // Whether a line that `owner` causes at `second` may be written; else it is counted. Null: always.
    bool Take(const uid_t* owner, time_t second) noexcept;

    // The next count that can be told at `second`, because its own second is over: whose it is and how many lines it
    // left out. False when there is none.
    bool TakeCount(time_t second, uid_t& uid, uint64_t& leftOut) noexcept;

private:
    struct Window {
        uid_t uid = 0;
        time_t second = 0;
        uint64_t lines = 0;  // all that there were, written or not
    };
    // As many users as may log in one second; those beyond share the last place.
    static constexpr size_t MAX_USERS = 64;

    size_t limit_ = MAX_LINES_PER_SECOND;
    size_t used_ = 0;  // places in use, the first ones
    std::array<Window, MAX_USERS> windows_;
};

}  // namespace VARN::Host
