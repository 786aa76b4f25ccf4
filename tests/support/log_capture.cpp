// SPDX-License-Identifier: Apache-2.0
#include "support/log_capture.h"

#include "varn/host/log_sink.h"
#include "varn/log.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

std::string Show(int level, const std::string& tag, const std::string& text)
{
    std::string shown = std::to_string(level) + " [" + tag + "] ";
    for (const char c : text) {
        shown += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return shown;
}

}  // namespace

LogCapture::LogCapture(int level) : previousLevel_(VARN::logLevel.load())
{
    Host::SetLogSink([this](const Host::LogLine& line) {
        const std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back({line.level, line.tag, line.text});
    });
    Host::SetLogLevel(level);
}

LogCapture::~LogCapture()
{
    Host::SetLogLevel(previousLevel_);
    Host::SetLogSink({});
}

std::vector<std::string> LogCapture::Lines(int level) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> lines;
    for (const Entry& entry : entries_) {
        if (entry.tag == "ASP" && entry.level >= level) {
            lines.push_back(Show(entry.level, entry.tag, entry.text));
        }
    }
    return lines;
}

std::string LogCapture::Everything() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string all;
    for (const Entry& entry : entries_) {
        all += Show(entry.level, entry.tag, entry.text) + "\n";
    }
    return all;
}

void LogCapture::Clear()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

std::string Line(int level, const std::string& function, const std::string& message, const std::string& module)
{
    return Show(level, "ASP", "[SPS][" + module + "]" + function + ": " + message);
}

std::vector<std::string> operator+(std::vector<std::string> first, const std::vector<std::string>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string all;
    for (const std::string& line : lines) {
        all += line + "\n";
    }
    return all;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
