// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

#include "varn/export.h"

namespace VARN {

// How much a line matters.
enum LogLevel : int { LOG_LEVEL_DEBUG = 3, LOG_LEVEL_INFO, LOG_LEVEL_WARN, LOG_LEVEL_ERROR, LOG_LEVEL_FATAL };

// The level below which lines are dropped; the host sets it (varn/host/log_sink.h). Kept here only so that the macro
// below can look at it without a call.
extern VARN_API std::atomic<int> logLevel;

// Relaxed: a line that is written around a change of the level may fall on either side.
// Expected to be false: the way past a dropped line should be the straight one.
inline bool IsLogLineWanted(int level) noexcept
{
    return __builtin_expect(static_cast<long>(level >= logLevel.load(std::memory_order_relaxed)), 0L) != 0;
}

constexpr int DropLogLine() noexcept
{
    return 0;
}

}  // namespace VARN

// Hands one line to the log service. `format` is printf's; a marker between braces behind the percent sign
// ("%{public}s", "%{private}d") is taken out first and means nothing here. `level` is a LogLevel.
// Returns the length of the line, 0 when it was dropped, negative when the format is broken.
//
// Thread safety: may be called from any thread, also during static initialisation and destruction.
extern "C" VARN_API int VoLogPrint(int type, int level, uint32_t domain, const char* tag, const char* format, ...);

// The level is tested before the arguments are evaluated, so that a line that nobody reads costs a comparison; the
// level itself is evaluated twice. Where the name is not called, and in `(VoLogPrint)(...)`, it is the function above.
#define VoLogPrint(type, level, ...) \
    (::VARN::IsLogLineWanted(level) ? (VoLogPrint)(type, level, __VA_ARGS__) : ::VARN::DropLogLine())
