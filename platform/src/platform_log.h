// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/log.h"

// The platform's own log lines.
//   PLATFORM_ERROR("bind %s: %s", path, reason)  ->  an error line with tag VARN and the text "bind /run/x: in use"
#define PLATFORM_LOG(level, ...) \
    static_cast<void>(VoLogPrint(::VARN::PLATFORM_LOG_TYPE, level, ::VARN::PLATFORM_LOG_DOMAIN, "VARN", __VA_ARGS__))
#define PLATFORM_WARN(...) PLATFORM_LOG(::VARN::LOG_LEVEL_WARN, __VA_ARGS__)
#define PLATFORM_ERROR(...) PLATFORM_LOG(::VARN::LOG_LEVEL_ERROR, __VA_ARGS__)

namespace VARN {

constexpr int PLATFORM_LOG_TYPE = 3;
constexpr uint32_t PLATFORM_LOG_DOMAIN = 0xD001;

}  // namespace VARN
