// SPDX-License-Identifier: Apache-2.0
#include "support/log_capture.h"

#include "varn/log.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

constexpr uint32_t DOMAIN = 0x5350;

// Says so when a line of the library does not bear its type and domain.
std::string Show(const Host::LogLine& line)
{
    const bool isForeign = line.tag == "ASP" && (line.type != 0 || line.domain != DOMAIN);
    return (isForeign ? "foreign " : "") + std::to_string(line.level) + " [" + line.tag + "] " + line.text + "\n";
}

}  // namespace

LogCapture::LogCapture(int level) : previousLevel_(VARN::logLevel.load())
{
    Host::SetLogSink([this](const Host::LogLine& line) {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    });
    Host::SetLogLevel(level);
}

LogCapture::~LogCapture()
{
    Host::SetLogLevel(previousLevel_);
    Host::SetLogSink({});
}

std::string LogCapture::Lines(int level, const std::string& tag) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string shown;
    for (const Host::LogLine& line : lines_) {
        shown += (tag.empty() || line.tag == tag) && line.level >= level ? Show(line) : "";
    }
    return shown;
}

void LogCapture::Clear()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

std::string Line(int level, const std::string& function, const std::string& message, const std::string& module)
{
    return Show({0, level, DOMAIN, "ASP", "[SPS][" + module + "]" + function + ": " + message});
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
