// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "util/log_tag.h"
#include "varn/log.h"

// The one form of every line that the library logs. A source file that logs names its tag LOG_TAG:
//
//   const Tag LOG_TAG = Tag::Create("service", Tag::DEFAULT_COMPONENT_TAG, Tag::DEFAULT_SUB_SYSTEM_TAG);
//
//   void SecurityPrivacyClient::WithSystemAbilityProxy(...)
//       LOG_ERROR("SA=%s is nullptr, please check.", Text(id).c_str());
//
// prints, filed under "ASP":
//
//   [SPS][service]WithSystemAbilityProxy: SA=65993 is nullptr, please check.
//
// The message is a literal with at most four arguments. Build an argument inside the call: where the platform drops a
// line before it looks at the arguments, they are then never made. Each macro is a void expression.
#define LOG_DEBUG(...) LOG_LINE(::VARN::LOG_LEVEL_DEBUG, __func__, __VA_ARGS__)
#define LOG_INFO(...) LOG_LINE(::VARN::LOG_LEVEL_INFO, __func__, __VA_ARGS__)
#define LOG_WARN(...) LOG_LINE(::VARN::LOG_LEVEL_WARN, __func__, __VA_ARGS__)
#define LOG_ERROR(...) LOG_LINE(::VARN::LOG_LEVEL_ERROR, __func__, __VA_ARGS__)

// The same under another function's name, for a line written by a helper or a lambda on behalf of that function.
#define LOG_DEBUG_AS(function, ...) LOG_LINE(::VARN::LOG_LEVEL_DEBUG, function, __VA_ARGS__)
#define LOG_WARN_AS(function, ...) LOG_LINE(::VARN::LOG_LEVEL_WARN, function, __VA_ARGS__)
#define LOG_ERROR_AS(function, ...) LOG_LINE(::VARN::LOG_LEVEL_ERROR, function, __VA_ARGS__)

// The function's name goes between the format and its arguments. C++17 has no way to write the comma behind it only
// when there are arguments, so the form is chosen by how many there are.
#define LOG_LINE(level, function, ...)                                                                         \
    LOG_LINE_FORM(__VA_ARGS__, LOG_LINE_WITH, LOG_LINE_WITH, LOG_LINE_WITH, LOG_LINE_WITH, LOG_LINE_WITHOUT, ) \
    (level, function, __VA_ARGS__)
#define LOG_LINE_FORM(format, first, second, third, fourth, form, ...) form
#define LOG_LINE_WITH(level, function, format, ...) LOG_LINE_PRINT(level, format, function, __VA_ARGS__)
#define LOG_LINE_WITHOUT(level, function, format) LOG_LINE_PRINT(level, format, function)
#define LOG_LINE_PRINT(level, format, ...)                                                                            \
    static_cast<void>(VoLogPrint(LOG_TAG.GetLogType(), level, LOG_TAG.GetDomain(), LOG_TAG.GetSubSystemTag().c_str(), \
                                 "[%{public}s][%{public}s]%{public}s: " format, LOG_TAG.GetComponentTag().c_str(),    \
                                 LOG_TAG.GetModuleTag().c_str(), __VA_ARGS__))
