// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "varn/host/log_sink.h"
#include "varn/log.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

constexpr int DEBUG = LOG_LEVEL_DEBUG;
constexpr int INFO = LOG_LEVEL_INFO;
constexpr int WARN = LOG_LEVEL_WARN;
constexpr int ERROR = LOG_LEVEL_ERROR;

// Takes the log over while it exists; afterwards the level is as before and lines go to standard error again.
class LogCapture {
public:
    explicit LogCapture(int level = DEBUG);
    ~LogCapture();

    // The library's own lines so far (those of the tag ASP) that are at least of `level`, as `Line` shows them.
    std::string Lines(int level = DEBUG, const std::string& tag = "ASP") const;

    // Everything that was logged, by whomever.
    std::string Everything() const { return Lines(DEBUG, ""); }

    void Clear();

private:
    const int previousLevel_;
    mutable std::mutex mutex_;
    std::vector<Host::LogLine> lines_;  // guarded by mutex_
};

// A line as it must look, and its end: "6 [ASP] [SPS][service]SendRequest: remote service null.".
std::string Line(int level, const std::string& function, const std::string& message,
                 const std::string& module = "service");

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
