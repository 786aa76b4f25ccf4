// SPDX-License-Identifier: Apache-2.0
#include "host/log/sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "host/base/process.h"
#include "host/base/thread_safety.h"
#include "host/base/unique_fd.h"
#include "varn/fork_handler.h"
#include "varn/host/visible_text.h"
#include "varn/log.h"

namespace VARN::Host {

namespace {

// Writes what is taken at once. Where this kernel cannot, standard error is opened anew, for not waiting. Where that is
// not allowed, it is written to only if it is ready. A pipe then has room for a page, unless another writer comes
// first. A terminal that is nearly full is ready too, and has its writer wait.
ssize_t WriteAtOnce(std::string_view text) noexcept
{
    const iovec piece = {const_cast<char*>(text.data()), text.size()};
    const ssize_t written = ::pwritev2(STDERR_FILENO, &piece, 1, -1, RWF_NOWAIT);
    if (written >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS && errno != EINVAL)) {
        return written;
    }
    const UniqueFd own(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own) {
        return ::write(own.Get(), text.data(), text.size());
    }
    pollfd entry = {STDERR_FILENO, POLLOUT, 0};
    const bool isReady = ::poll(&entry, 1, 0) == 1 && entry.revents == POLLOUT;
    return isReady ? ::write(STDERR_FILENO, text.data(), std::min<size_t>(text.size(), PIPE_BUF)) : -1;
}

// The same, but a pipe without a reader fails and does nothing else: SIGPIPE is held back, and taken away if the write
// brought it.
ssize_t WriteWithoutSignal(std::string_view text) noexcept
{
    constexpr timespec AT_ONCE = {};
    sigset_t pipe;
    sigset_t pending;
    sigset_t before;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    const bool wasPending = ::sigpending(&pending) == 0 && ::sigismember(&pending, SIGPIPE) == 1;
    ::pthread_sigmask(SIG_BLOCK, &pipe, &before);
    const ssize_t written = WriteAtOnce(text);
    if (!wasPending) {
        static_cast<void>(TEMP_FAILURE_RETRY(::sigtimedwait(&pipe, nullptr, &AT_ONCE)));
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return written;
}

// Writes to standard error as much of `text` as it takes at once, and returns how much that was. It never waits for a
// reader and never raises a signal: a pipe, socket or terminal that is full, closed or has no reader takes nothing.
// Only a file on a disk is waited for, and a terminal that is nearly full where this user may not open it. A terminal
// may take any part; elsewhere up to 4096 bytes go whole or not at all.
size_t WriteToStandardError(std::string_view text) noexcept
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) != 0) {
        return 0;
    }
    const ssize_t written = S_ISSOCK(status.st_mode)
                                ? ::send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                            : S_ISREG(status.st_mode) ? ::write(STDERR_FILENO, text.data(), text.size())
                                                      : WriteWithoutSignal(text);
    return written < 0 ? 0 : static_cast<size_t>(written);
}

// Whether what is written there goes to the journal, as the environment says (JOURNAL_STREAM). Looked at once.
bool IsJournal()
{
    static const bool isJournal = [] {
        const char* stream = std::getenv("JOURNAL_STREAM");
        struct stat status = {};
        return stream != nullptr && ::fstat(STDERR_FILENO, &status) == 0 &&
               std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
    }();
    return isJournal;
}

// How many lines the requests of each user may cause in a second. Without it an app whose valid requests cause a line
// each fills the disk or the pipe, or uses up what the journal takes from this program, and the lines that matter are
// lost.
class LineLimit {
public:
    void Set(size_t linesPerSecond) noexcept { limit_ = linesPerSecond; }

    // The next user of whom lines were left out in a second before `second`, and how many. False when there is none.
    bool TakeCount(time_t second, uid_t& uid, uint64_t& leftOut) noexcept
    {
        while (second_ != second && used_ != 0) {
            const User user = users_[--used_];
            if (user.lines > limit_) {
                uid = user.uid;
                leftOut = user.lines - limit_;
                return true;
            }
        }
        second_ = second;
        return false;
    }

    // Whether a line that `owner` causes may be written; else it is counted. Null: always. For the second whose counts
    // were taken last.
    bool Take(const Caller* owner) noexcept
    {
        if (owner == nullptr || limit_ == 0) {
            return true;
        }
        size_t place = 0;
        while (place < used_ && users_[place].uid != owner->uid) {
            ++place;
        }
        if (place == used_ && used_ < MAX_USERS) {
            users_[used_++] = {owner->uid, 0};
        }
        return ++users_[std::min(place, MAX_USERS - 1)].lines <= limit_;
    }

private:
    struct User {
        uid_t uid;
        uint64_t lines;  // all that there were, written or not
    };
    static constexpr size_t MAX_LINES_PER_SECOND = 100;
    // As many users as may log in one second; those beyond share the last place.
    static constexpr size_t MAX_USERS = 64;

    size_t limit_ = MAX_LINES_PER_SECOND;  // 0: none
    time_t second_ = 0;
    size_t used_ = 0;  // places in use, the first ones
    std::array<User, MAX_USERS> users_ = {};
};

struct Sink {
    std::function<void(const LogLine&)> write;
    int running = 0;  // calls of `write` under way; guarded by Log::mutex
};

struct Log {
    // Held for moments, never while a sink runs or anything is written. Held while the C library looks at its time zone
    // data as well, which it guards with a lock of its own: a fork waits for this one, so that the child finds both
    // free.
    Mutex mutex;
    std::shared_ptr<Sink> sink GUARDED_BY(mutex);  // null: standard error
    std::condition_variable idle;                  // a sink's last call has ended
    LineLimit limit GUARDED_BY(mutex);
    uint64_t lost GUARDED_BY(mutex) = 0;       // lines that standard error did not take and no line has counted yet
    bool isCut GUARDED_BY(mutex) = false;      // the last line was taken in part, without its end
    time_t second GUARDED_BY(mutex) = -1;      // which one `timeText` shows; the calendar is asked once for each
    char timeText[64] GUARDED_BY(mutex) = "";  // such as "2025-03-01 12:59:07."
};

// Never destroyed: lines are written during static destruction as well.
Log& GetLog()
{
    static Log& log = *new Log;
    return log;
}

// How many sink calls this thread is inside of: a sink may log, and may set another sink.
thread_local int sinkDepth = 0;

// The parent's other threads, inside the sink or waiting for it, will never come back here.
void ForgetOtherThreads() VARN_THREAD_ANNOTATION(no_thread_safety_analysis)
{
    Log& log = GetLog();
    if (log.sink) {
        log.sink->running = sinkDepth;
    }
    new (&log.idle) std::condition_variable;
    log.mutex.unlock();
}

const ForkHandler sinkForkHandler(ForkHandler::Rank::LOG,
                                  {[] { GetLog().mutex.lock(); }, [] { GetLog().mutex.unlock(); }, ForgetOtherThreads});

// What stands in front of each line of this moment, up to its level.
std::string MakeHead(Log& log, const timespec& now) REQUIRES(log.mutex)
{
    constexpr long NANOSECONDS_PER_MILLISECOND = 1000000;
    if (log.second != now.tv_sec) {
        log.second = now.tv_sec;
        tm local = {};
        ::localtime_r(&now.tv_sec, &local);
        std::strftime(log.timeText, sizeof(log.timeText), "%Y-%m-%d %H:%M:%S.", &local);
    }
    return log.timeText + std::to_string(1000 + now.tv_nsec / NANOSECONDS_PER_MILLISECOND).substr(1) + ' ' +
           std::to_string(::getpid()) + ' ' + std::to_string(::gettid()) + ' ';
}

void AppendLine(std::string& out, const std::string& head, int level, const std::string& tag, const std::string& text)
{
    // The letter and the journal's number of each level, and of what is below and above them.
    constexpr char LETTERS[] = "?DIWEF?";
    constexpr char JOURNAL_LEVELS[] = "7764333";
    const int mark = std::clamp<int>(level, LOG_LEVEL_DEBUG - 1, LOG_LEVEL_FATAL + 1) - (LOG_LEVEL_DEBUG - 1);
    if (IsJournal()) {
        out.append({'<', JOURNAL_LEVELS[mark], '>'});
    }
    out += head + LETTERS[mark] + ' ' + VisibleText(tag) + ": " + VisibleText(text) + '\n';
}

// Writes a line to standard error, in one piece and without waiting: what is not taken at once is lost, and the next
// line says how many were. A line that one user's requests cause counts against that user's limit.
void WriteLine(Log& log, const LogLine& line) noexcept
{
    uint64_t missing = 1;  // what is lost if nothing can be written: this line, and what it tells about others
    size_t written = 0;
    // Until all is known, memory may run out for it, and all is lost.
    size_t told = SIZE_MAX;  // up to here what is written tells of others
    size_t size = SIZE_MAX;
    try {
        timespec now = {};
        ::clock_gettime(CLOCK_REALTIME, &now);
        std::string out;
        {
            const MutexLock lock(log.mutex);
            const std::string head = MakeHead(log, now);
            if (log.isCut) {
                out += '\n';
            }
            uid_t uid = 0;
            for (uint64_t leftOut = 0; log.limit.TakeCount(now.tv_sec, uid, leftOut);) {
                missing += leftOut;
                AppendLine(out, head, LOG_LEVEL_WARN, "VARN",
                           std::to_string(leftOut) + " lines that requests of user " + std::to_string(uid) +
                               " caused in one second are left out");
            }
            if (log.lost != 0) {
                AppendLine(out, head, LOG_LEVEL_WARN, "VARN",
                           std::to_string(log.lost) + " lines are missing here: standard error did not take them");
                missing += std::exchange(log.lost, 0);
            }
            told = out.size();
            if (log.limit.Take(CallerScope::Current())) {
                AppendLine(out, head, line.level, line.tag, line.text);
            } else if (--missing == 0) {
                return;
            }
        }
        size = out.size();
        written = WriteToStandardError(out);
    } catch (...) {
        // Out of memory.
    }
    const MutexLock lock(log.mutex);
    log.isCut = written != 0 ? written != size : log.isCut;
    log.lost += written == size ? 0 : written < told ? missing : 1;
}

}  // namespace

void SetLogSink(std::function<void(const LogLine&)> sink)
{
    std::shared_ptr<Sink> next = sink ? std::make_shared<Sink>(Sink{std::move(sink)}) : nullptr;
    Log& log = GetLog();
    MutexLock lock(log.mutex);
    next.swap(log.sink);
    if (next && sinkDepth == 0) {
        log.idle.wait(lock, [&next] { return next->running == 0; });
    }
}

void SetLogLevel(int level)
{
    logLevel.store(level, std::memory_order_relaxed);
}

void SetLogLineLimit(size_t linesPerSecond)
{
    Log& log = GetLog();
    const MutexLock lock(log.mutex);
    log.limit.Set(linesPerSecond);
}

void DeliverToSink(const LogLine& line)
{
    Log& log = GetLog();
    std::shared_ptr<Sink> sink;
    {
        const MutexLock lock(log.mutex);
        sink = log.sink;
        if (sink) {
            ++sink->running;
        }
    }
    if (!sink) {
        WriteLine(log, line);
        return;
    }
    ++sinkDepth;
    try {
        sink->write(line);
    } catch (...) {
        // No caller of a log line expects an exception, and there is nowhere left to report it.
    }
    --sinkDepth;
    const MutexLock lock(log.mutex);
    if (--sink->running == 0) {
        log.idle.notify_all();
    }
}

}  // namespace VARN::Host
