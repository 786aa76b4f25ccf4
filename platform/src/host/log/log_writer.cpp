// SPDX-License-Identifier: Apache-2.0
#include "host/log/log_writer.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "host/base/thread_safety.h"
#include "varn/fork_handler.h"

namespace VARN::Host {

namespace {

// Held while the C library looks at its time zone data, which it guards with a lock of its own: a fork must not leave
// that one locked in the child, so it waits for this one.
Mutex timeZoneMutex;

const ForkHandler forkHandler(ForkHandler::Rank::LOG, {[] { timeZoneMutex.Lock(); }, [] { timeZoneMutex.Unlock(); },
                                                       [] { timeZoneMutex.Unlock(); }});

tm ToLocalTime(time_t seconds)
{
    tm local = {};
    const MutexLock lock(timeZoneMutex);
    ::localtime_r(&seconds, &local);
    return local;
}

char LevelLetter(int level)
{
    constexpr char LETTERS[] = "DIWEF";
    constexpr int FIRST = 3;
    const int index = level - FIRST;
    return index >= 0 && index < static_cast<int>(sizeof(LETTERS)) - 1 ? LETTERS[index] : '?';
}

// Whether the byte is a control character or belongs to one: U+0080 to U+009F are such too, and UTF-8 writes them as
// 0xC2 and one byte more.
bool IsControl(const std::string& text, size_t at)
{
    const auto byteAt = [&text](size_t place) {
        return place < text.size() ? static_cast<unsigned char>(text[place]) : 0U;
    };
    const auto isSecond = [](unsigned byte) { return byte >= 0x80 && byte <= 0x9f; };
    const unsigned byte = byteAt(at);
    return byte < 0x20 || byte == 0x7f || (byte == 0xc2 && isSecond(byteAt(at + 1))) ||
           (isSecond(byte) && at > 0 && byteAt(at - 1) == 0xc2);
}

// A service's name may come from an app: what a terminal would obey is shown, not sent.
void AppendVisible(std::string& out, const std::string& text)
{
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\n') {
            out += "\\n";
        } else if (IsControl(text, at)) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\x%02x", static_cast<unsigned char>(text[at]));
            out += escaped;
        } else {
            out += text[at];
        }
    }
}

}  // namespace

void WriteLogLine(const LogLine& line) noexcept
{
    try {
        timespec now = {};
        ::clock_gettime(CLOCK_REALTIME, &now);
        const tm local = ToLocalTime(now.tv_sec);
        char head[80];
        constexpr long NANOSECONDS_PER_MILLISECOND = 1000000;
        std::snprintf(head, sizeof(head), "%04d-%02d-%02d %02d:%02d:%02d.%03ld %d %ld %c ", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      now.tv_nsec / NANOSECONDS_PER_MILLISECOND, ::getpid(), ::syscall(SYS_gettid),
                      LevelLetter(line.level));
        std::string out = head;
        AppendVisible(out, line.tag);
        out += ": ";
        AppendVisible(out, line.text);
        out += '\n';
        // One write, so that lines of several processes do not mix. What a full pipe cuts off is lost: logging never
        // waits in a loop.
        while (::write(STDERR_FILENO, out.data(), out.size()) < 0 && errno == EINTR) {
        }
    } catch (...) {
        // Out of memory: the line is lost.
        return;
    }
}

}  // namespace VARN::Host
