// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

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

    // A tag of these three texts with the library's log type and domain. Mind the order: the narrowest comes first.
    static Tag Create(const std::string& moduleTag, const std::string& componentTag, const std::string& subSystemTag);

    uint8_t GetLogType() const { return logType_; }
    uint32_t GetDomain() const { return domain_; }
    // The tag by which the log service files a line.
    const std::string& GetSubSystemTag() const { return subSystemTag_; }
    // These two open the text of a line, each in brackets.
    const std::string& GetComponentTag() const { return componentTag_; }
    const std::string& GetModuleTag() const { return moduleTag_; }

private:
    Tag(const std::string& moduleTag, const std::string& componentTag, const std::string& subSystemTag);

    uint8_t logType_;
    uint32_t domain_;
    std::string subSystemTag_;
    std::string componentTag_;
    std::string moduleTag_;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::KelLog
