// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <system_error>

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

// The text of an errno, with its number. May be called by several threads at once.
inline std::string ErrorText(int error)
{
    return std::generic_category().message(error) + " (errno " + std::to_string(error) + ")";
}

}  // namespace VARN
