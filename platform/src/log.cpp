// SPDX-License-Identifier: Apache-2.0
#include "varn/log.h"

#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "platform_hooks.h"
#include "varn/host/log_sink.h"

namespace VARN {

namespace {

using Host::LogLine;

constexpr int DEFAULT_LEVEL = 4;

struct Sink {
    std::function<void(const LogLine&)> write;
    int running = 0;  // calls of `write` under way; guarded by Log::mutex
};

struct Log {
    std::mutex mutex;
    std::shared_ptr<Sink> sink;    // null: standard error; guarded by mutex
    std::condition_variable idle;  // a sink's last call has ended
};

// Never destroyed: lines are written during static destruction as well.
Log& GetLog()
{
    alignas(Log) static unsigned char storage[sizeof(Log)];
    static Log& log = *new (storage) Log;
    return log;
}

// How many sink calls this thread is inside of: a sink may log, and may set another sink.
thread_local int sinkDepth = 0;

// printf does not know the markers: "%{public}s" becomes "%s".
std::string StripMarkers(const char* format)
{
    std::string plain;
    plain.reserve(std::strlen(format));
    for (const char* at = format; *at != '\0'; ++at) {
        plain.push_back(*at);
        if (*at != '%') {
            continue;
        }
        if (at[1] == '%') {
            plain.push_back(*++at);
        } else if (at[1] == '{') {
            const char* end = std::strchr(at, '}');
            if (end == nullptr) {
                // Not a marker after all: printf would make no sense of it.
                plain.push_back('%');
                continue;
            }
            at = end;
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

void Deliver(const LogLine& line)
{
    Log& log = GetLog();
    std::unique_lock<std::mutex> lock(log.mutex);
    const std::shared_ptr<Sink> sink = log.sink;
    if (!sink) {
        lock.unlock();
        WriteLogLine(line);
        return;
    }
    ++sink->running;
    lock.unlock();
    ++sinkDepth;
    try {
        sink->write(line);
    } catch (...) {
        // Nobody who logs is prepared for an exception, and there is nowhere left to report it.
    }
    --sinkDepth;
    lock.lock();
    if (--sink->running == 0) {
        log.idle.notify_all();
    }
}

// Reads VARN_LOG_LEVEL when the library is loaded; until then the default holds.
const bool levelFromEnvironment = [] {
    const char* value = std::getenv("VARN_LOG_LEVEL");
    if (value != nullptr && value[0] >= '3' && value[0] <= '7' && value[1] == '\0') {
        logLevel.store(value[0] - '0', std::memory_order_relaxed);
    }
    return true;
}();

}  // namespace

std::atomic<int> logLevel{DEFAULT_LEVEL};

void LockLog()
{
    GetLog().mutex.lock();
}

void UnlockLog()
{
    GetLog().mutex.unlock();
}

namespace Host {

void SetLogSink(std::function<void(const LogLine&)> sink)
{
    std::shared_ptr<Sink> next;
    if (sink) {
        next = std::make_shared<Sink>();
        next->write = std::move(sink);
    }
    Log& log = GetLog();
    std::unique_lock<std::mutex> lock(log.mutex);
    next.swap(log.sink);
    if (next && sinkDepth == 0) {
        log.idle.wait(lock, [&next] { return next->running == 0; });
    }
}

void SetLogLevel(int level)
{
    logLevel.store(level, std::memory_order_relaxed);
}

}  // namespace Host

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
        VARN::Host::LogLine line{type, level, domain, tag != nullptr ? tag : "", std::string()};
        if (VARN::Format(line.text, format, arguments)) {
            VARN::Deliver(line);
            result = static_cast<int>(line.text.size());
        }
    } catch (...) {
        // Out of memory: the line is lost, the program is not.
        result = -1;
    }
    va_end(arguments);
    return result;
}
