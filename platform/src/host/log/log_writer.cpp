// SPDX-License-Identifier: Apache-2.0
#include "host/log/log_writer.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>

#include "host/base/caller_scope.h"
#include "host/base/thread_safety.h"
#include "host/log/standard_error.h"
#include "varn/fork_handler.h"
#include "varn/host/visible_text.h"
#include "varn/log.h"

namespace VARN::Host {

namespace {

// How many lines the requests of each user may cause in a second. Without it an app whose valid requests cause a line
// each fills the disk or the pipe, or uses up what the journal takes from this program, and the lines that matter are
// lost.
class LineLimit {
public:
    // 0: none.
    void Set(size_t linesPerSecond) noexcept { limit_ = linesPerSecond; }

    // Whether a line that `owner` causes at `second` may be written; else it is counted. Null: always.
    bool Take(const Caller* owner, time_t second) noexcept
    {
        if (owner == nullptr || limit_ == 0) {
            return true;
        }
        size_t place = 0;
        while (place < used_ && windows_[place].uid != owner->uid) {
            ++place;
        }
        if (place == used_ && used_ < MAX_USERS) {
            windows_[used_++] = {owner->uid, second, 0};
        }
        return ++windows_[std::min(place, MAX_USERS - 1)].lines <= limit_;
    }

    // The next count that can be told at `second`, because its own second is over: whose it is and how many lines it
    // left out. False when there is none.
    bool TakeCount(time_t second, uid_t& uid, uint64_t& leftOut) noexcept
    {
        // From behind, since the last one takes the place of one that goes.
        for (size_t index = used_; index-- > 0;) {
            const Window window = windows_[index];
            if (window.second == second) {
                continue;
            }
            windows_[index] = windows_[--used_];
            if (window.lines > limit_) {
                uid = window.uid;
                leftOut = window.lines - limit_;
                return true;
            }
        }
        return false;
    }

private:
    struct Window {
        uid_t uid = 0;
        time_t second = 0;
        uint64_t lines = 0;  // all that there were, written or not
    };
    static constexpr size_t MAX_LINES_PER_SECOND = 100;
    // As many users as may log in one second; those beyond share the last place.
    static constexpr size_t MAX_USERS = 64;

    size_t limit_ = MAX_LINES_PER_SECOND;
    size_t used_ = 0;  // places in use, the first ones
    std::array<Window, MAX_USERS> windows_;
};

struct Writer {
    // Held for moments, never while anything is written. Held while the C library looks at its time zone data as well,
    // which it guards with a lock of its own: a fork waits for this one, so that the child finds both free.
    Mutex mutex;
    LineLimit limit GUARDED_BY(mutex);
    uint64_t lost GUARDED_BY(mutex) = 0;         // lines that standard error did not take and no line has counted yet
    bool isCut GUARDED_BY(mutex) = false;        // the last line was taken in part, without its end
    time_t minute GUARDED_BY(mutex) = -1;        // which one `minuteText` shows; the calendar is asked once for each
    char minuteText[96] GUARDED_BY(mutex) = "";  // such as "2025-03-01 12:59:"
};

// Has no constructor or destructor to run: lines are written while libraries are loaded and unloaded.
Writer writer;

void LockWriter() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    writer.mutex.Lock();
}

void UnlockWriter() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    writer.mutex.Unlock();
}

const ForkHandler forkHandler(ForkHandler::Rank::LOG, {LockWriter, UnlockWriter, UnlockWriter});

// How a line shows its level: a letter, and the number by which the journal knows it.
struct LevelMark {
    char letter;
    char journal;
};

LevelMark MarkOf(int level)
{
    constexpr LevelMark MARKS[] = {{'D', '7'}, {'I', '6'}, {'W', '4'}, {'E', '3'}, {'F', '3'}};
    if (level < LOG_LEVEL_DEBUG || level > LOG_LEVEL_FATAL) {
        return {'?', level < LOG_LEVEL_DEBUG ? '7' : '3'};
    }
    return MARKS[level - LOG_LEVEL_DEBUG];
}

const char* MinuteText(time_t seconds) REQUIRES(writer.mutex)
{
    constexpr time_t SECONDS_PER_MINUTE = 60;
    if (writer.minute != seconds / SECONDS_PER_MINUTE) {
        writer.minute = seconds / SECONDS_PER_MINUTE;
        tm local = {};
        ::localtime_r(&seconds, &local);
        std::snprintf(writer.minuteText, sizeof(writer.minuteText), "%04d-%02d-%02d %02d:%02d:", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min);
    }
    return writer.minuteText;
}

// What stands in front of each line of this moment, up to its level.
std::string MakeHead(const timespec& now, const char* minuteText)
{
    constexpr long NANOSECONDS_PER_MILLISECOND = 1000000;
    constexpr long SECONDS_PER_MINUTE = 60;
    const auto milliseconds = static_cast<int>(now.tv_nsec / NANOSECONDS_PER_MILLISECOND);
    const auto seconds = static_cast<int>(now.tv_sec % SECONDS_PER_MINUTE);
    const auto digit = [](int number) { return static_cast<char>('0' + number % 10); };
    std::string head = minuteText;
    head.append({digit(seconds / 10), digit(seconds), '.', digit(milliseconds / 100), digit(milliseconds / 10),
                 digit(milliseconds), ' '});
    head += std::to_string(::getpid()) + ' ' + std::to_string(::syscall(SYS_gettid)) + ' ';
    return head;
}

void AppendLine(std::string& out, const std::string& head, int level, const std::string& tag, const std::string& text)
{
    const LevelMark mark = MarkOf(level);
    if (IsJournal()) {
        out.append({'<', mark.journal, '>'});
    }
    out += head + mark.letter + ' ' + VisibleText(tag) + ": " + VisibleText(text) + '\n';
}

}  // namespace

void SetLogLineLimit(size_t linesPerSecond)
{
    const MutexLock lock(writer.mutex);
    writer.limit.Set(linesPerSecond);
}

void WriteLogLine(const LogLine& line) noexcept
{
    uint64_t missing = 1;  // what is lost if nothing can be written: this line, and what it tells about others
    size_t written = 0;
    size_t told = 0;  // up to here what is written tells of others
    size_t size = 0;
    try {
        timespec now = {};
        ::clock_gettime(CLOCK_REALTIME, &now);
        std::string head;
        std::string out;
        {
            const MutexLock lock(writer.mutex);
            head = MakeHead(now, MinuteText(now.tv_sec));
            if (writer.isCut) {
                out += '\n';
            }
            uid_t uid = 0;
            for (uint64_t leftOut = 0; writer.limit.TakeCount(now.tv_sec, uid, leftOut); missing += leftOut) {
                AppendLine(out, head, LOG_LEVEL_WARN, "VARN",
                           std::to_string(leftOut) + " lines that requests of user " + std::to_string(uid) +
                               " caused in one second are left out");
            }
            if (writer.lost != 0) {
                AppendLine(out, head, LOG_LEVEL_WARN, "VARN",
                           std::to_string(writer.lost) + " lines are missing here: standard error did not take them");
                missing += std::exchange(writer.lost, 0);
            }
            told = out.size();
            if (!writer.limit.Take(CallerScope::Current(), now.tv_sec)) {
                --missing;
                if (missing == 0) {
                    return;
                }
            } else {
                AppendLine(out, head, line.level, line.tag, line.text);
            }
        }
        size = out.size();
        written = WriteToStandardError(out);
    } catch (...) {
        // Out of memory: the line is lost.
        written = 0;
    }
    const MutexLock lock(writer.mutex);
    writer.isCut = written != 0 ? written != size : writer.isCut;
    writer.lost += written == size ? 0 : written < told ? missing : 1;
}

}  // namespace VARN::Host
