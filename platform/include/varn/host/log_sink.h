// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "varn/export.h"

namespace VARN::Host {

// One line as it was logged.
struct LogLine {
    // As they were given to `VoLogPrint`.
    int type;
    int level;
    uint32_t domain;
    std::string tag;

    // The formatted line, whole and verbatim: its own newline, control characters and percent signs are kept, and no
    // length is too long.
    std::string text;
};

// Sends every line that passes the level to `sink` instead of standard error; an empty function brings standard error
// back. The sink is called on the thread that logs, by several at once, and may log or call a service itself.
// When this returns, no call of the previous sink is running any more (unless it is the previous sink that calls this),
// so what that one refers to may go.
//
// Standard error gets one write per line, with time, process, thread, level letter and tag; bytes that could upset a
// terminal are shown escaped.
VARN_API void SetLogSink(std::function<void(const LogLine&)> sink);

// Drops lines below `level` from now on; they cost one comparison. The default is 4 (info), or what the environment
// variable VARN_LOG_LEVEL says (3 to 7) when the program starts.
VARN_API void SetLogLevel(int level);

}  // namespace VARN::Host
