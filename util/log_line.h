// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "varn/log.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::KelLog {

// Says which part of the service wrote a log line. Each source file that logs owns one, made while the library is
// loaded and destroyed when it is unloaded; in between it never changes, so any thread may read it.
class Tag {
public:
    // Inline, so that every file that includes this header has them made before its own tag, whichever file is
    // initialised first: a constant that one file defines could come too late for the others.
    static inline const std::string DEFAULT_SUB_SYSTEM_TAG = "ASP";
    static inline const std::string DEFAULT_COMPONENT_TAG = "SPS";
    static inline const std::string DEFAULT_MODULE_TAG = "default";

    // Mind the order: the narrowest comes first.
    static Tag Create(const std::string& moduleTag, const std::string& componentTag = DEFAULT_COMPONENT_TAG,
                      const std::string& subSystemTag = DEFAULT_SUB_SYSTEM_TAG)
    {
        return Tag(moduleTag, componentTag, subSystemTag);
    }

    uint8_t GetLogType() const { return 0; }
    uint32_t GetDomain() const { return 0x5350; }  // "SP"
    // The tag by which the log service files a line.
    const std::string& GetSubSystemTag() const { return subSystemTag_; }
    // These two open the text of a line, each in brackets.
    const std::string& GetComponentTag() const { return componentTag_; }
    const std::string& GetModuleTag() const { return moduleTag_; }

private:
    Tag(const std::string& moduleTag, const std::string& componentTag, const std::string& subSystemTag)
        : subSystemTag_(subSystemTag), componentTag_(componentTag), moduleTag_(moduleTag)
    {
    }

    std::string subSystemTag_;
    std::string componentTag_;
    std::string moduleTag_;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::KelLog

// The one form of every line that the library logs. A source file that logs names its tag LOG_TAG:
//
//   const auto LOG_TAG = Util::KelLog::Tag::Create("service");
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
#define LOG_ERROR(...) LOG_LINE(::VARN::LOG_LEVEL_ERROR, __func__, __VA_ARGS__)

// The same under another function's name, for a line written by a helper or a lambda on behalf of that function.
#define LOG_DEBUG_AS(function, ...) LOG_LINE(::VARN::LOG_LEVEL_DEBUG, function, __VA_ARGS__)
#define LOG_INFO_AS(function, ...) LOG_LINE(::VARN::LOG_LEVEL_INFO, function, __VA_ARGS__)
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
