// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "varn/export.h"
#include "varn/log.h"

namespace VARN::Host {

// One line as it was logged.
struct LogLine {
    // As they were given to `VoLogPrint`; the level is a LogLevel or what the caller took for one.
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
// Standard error gets one write per line, with time, process, thread, level letter and tag, and under the journal with
// the journal's own level in front; bytes that a terminal would obey are shown escaped. Writing never waits and never
// raises SIGPIPE: what cannot be written at once (a pipe that nobody reads, a closed descriptor) is lost, and the next
// line that can be written says how many were. `sink` gets every line, and may take its time on its caller's account.
VARN_API void SetLogSink(std::function<void(const LogLine&)> sink);

// Drops lines below `level`, a LogLevel, from now on; they cost one comparison. The default is warn, or what the
// environment variable VARN_LOG_LEVEL says (3, debug, to 7, fatal) when the program starts.
VARN_API void SetLogLevel(int level);

// How many lines on standard error the requests of one user may cause in a second, so that no user can fill a disk or
// hide other lines; the count of those left out follows. The default is 100; 0: no limit. A sink gets them all.
VARN_API void SetLogLineLimit(size_t linesPerSecond);

}  // namespace VARN::Host
