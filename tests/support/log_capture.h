// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>
#include <regex>
#include <string>

#include "varn/host/log_sink.h"
#include "varn/log.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// How often the pattern is there; with a group that is a number, the sum of these numbers.
inline size_t Count(const std::string& text, const std::string& pattern)
{
    const std::regex regex(pattern);
    size_t sum = 0;
    for (std::sregex_iterator match(text.begin(), text.end(), regex); match != std::sregex_iterator(); ++match) {
        sum += match->size() > 1 ? std::stoul((*match)[1]) : 1;
    }
    return sum;
}

// Takes the log over while it exists; afterwards the level is as before and lines go to standard error again.
class LogCapture {
public:
    explicit LogCapture(int level = LOG_LEVEL_DEBUG)
    {
        Host::SetLogSink([this](const Host::LogLine& line) {
            const std::string text = std::to_string(line.level) + " [" + line.tag + "] " + line.text + "\n";
            const std::lock_guard<std::mutex> lock(mutex_);
            everything_ += text;
            lines_ += line.tag == "ASP" && line.type == 0 && line.domain == 0x5350 ? text : "";
        });
        Host::SetLogLevel(level);
    }
    ~LogCapture()
    {
        Host::SetLogLevel(previousLevel_);
        Host::SetLogSink({});
    }

    // The lines so far that bear the library's tag, type and domain, each with its end: "6 [ASP]
    // [SPS][service]SendRequest: remote service null.".
    std::string Lines() const { return Copy(lines_); }

    // What was logged, by whomever.
    std::string Everything() const { return Copy(everything_); }

    void Clear()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        everything_.clear();
        lines_.clear();
    }

private:
    std::string Copy(const std::string& text) const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return text;
    }

    const int previousLevel_ = VARN::logLevel.load();
    mutable std::mutex mutex_;
    std::string lines_;       // guarded by mutex_, as is
    std::string everything_;  // this
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
