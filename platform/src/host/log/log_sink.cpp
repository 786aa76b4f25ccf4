// SPDX-License-Identifier: Apache-2.0
#include "varn/host/log_sink.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "host/log/log_writer.h"
#include "varn/fork_handler.h"
#include "varn/log.h"

namespace VARN::Host {

namespace {

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
    static Log& log = *new Log;
    return log;
}

// How many sink calls this thread is inside of: a sink may log, and may set another sink.
thread_local int sinkDepth = 0;

// The parent's other threads, inside the sink or waiting for it, will never come back here.
void ForgetOtherThreads()
{
    Log& log = GetLog();
    if (log.sink) {
        log.sink->running = sinkDepth;
    }
    new (&log.idle) std::condition_variable;
    log.mutex.unlock();
}

const ForkHandler forkHandler(ForkHandler::Rank::LOG,
                              {[] { GetLog().mutex.lock(); }, [] { GetLog().mutex.unlock(); }, ForgetOtherThreads});

}  // namespace

void DeliverToSink(const LogLine& line)
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
        // No caller of a log line expects an exception, and there is nowhere left to report it.
    }
    --sinkDepth;
    lock.lock();
    if (--sink->running == 0) {
        log.idle.notify_all();
    }
}

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

}  // namespace VARN::Host
