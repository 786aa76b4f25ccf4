// SPDX-License-Identifier: Apache-2.0
#include "varn/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform_hooks.h"

namespace VARN {

namespace {

// printf does not know the markers: "%{public}s" becomes "%s".
std::string StripMarkers(const char* format)
{
    std::string plain = format;
    for (size_t at = 0; (at = plain.find('%', at)) != std::string::npos;) {
        ++at;
        const size_t end = plain[at] == '{' ? plain.find('}', at) : at;
        if (end == std::string::npos) {
            // Not a marker after all: printf would make no sense of it.
            plain.insert(at++, 1, '%');
        } else if (end != at) {
            plain.erase(at, end - at + 1);
        } else if (plain[at] == '%') {
            ++at;
        }
    }
    return plain;
}

// False when printf refuses the format.
bool Format(std::string& text, const char* format, va_list arguments)
{
    constexpr size_t USUAL_LENGTH = 256;
    const std::string plain = StripMarkers(format);
    va_list again;
    va_copy(again, arguments);
    text.resize(USUAL_LENGTH);
    int length = std::vsnprintf(text.data(), text.size() + 1, plain.c_str(), arguments);
    if (length >= 0 && static_cast<size_t>(length) > text.size()) {
        text.resize(static_cast<size_t>(length));
        length = std::vsnprintf(text.data(), text.size() + 1, plain.c_str(), again);
    }
    va_end(again);
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return length >= 0;
}

// Reads VARN_LOG_LEVEL when the library is loaded; until then the default holds.
const bool levelFromEnvironment = [] {
    const char* value = std::getenv("VARN_LOG_LEVEL");
    if (value != nullptr && value[0] >= '0' + LOG_LEVEL_DEBUG && value[0] <= '0' + LOG_LEVEL_FATAL &&
        value[1] == '\0') {
        logLevel.store(value[0] - '0', std::memory_order_relaxed);
    }
    return true;
}();

}  // namespace

// A program that did nothing wrong writes nothing.
std::atomic<int> logLevel{LOG_LEVEL_WARN};

}  // namespace VARN

extern "C" int(VoLogPrint)(int type, int level, uint32_t domain, const char* tag, const char* format, ...)
{
    if (!VARN::IsLogLineWanted(level) || format == nullptr) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    int result = -1;
    try {
        std::string text;
        if (VARN::Format(text, format, arguments)) {
            VARN::DeliverLogLine(type, level, domain, tag != nullptr ? tag : "", text);
            result = static_cast<int>(text.size());
        }
    } catch (...) {
        // Out of memory: the line is lost, the program is not.
    }
    va_end(arguments);
    return result;
}
