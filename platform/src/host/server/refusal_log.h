// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "host/base/thread_safety.h"
#include "varn/host/caller.h"

namespace VARN::Host {

// What a server ends a connection for, or (REPLY_LENGTH) fails a request for, or (the last two) is itself kept from.
enum class Limit {
    CONNECTIONS,
    CONNECTIONS_PER_USER,
    REQUEST_BYTES,
    REQUEST_TIME,
    REPLY_LENGTH,
    REPLY_TIME,
    REPLY_BYTES,
    BEGUN_REQUEST_BYTES,
    PROTOCOL,
    DESCRIPTORS_SENT,
    DESCRIPTORS,
    WORKERS
};

// Writes a warn line when a limit bites, at most one a second for each limit: a peer that is refused in a loop must not
// fill the log. The next line of the limit, or the end of the server, says how many were left out.
//
// Thread safety: every operation may be called from any thread.
class RefusalLog {
public:
    explicit RefusalLog(int32_t id) : id_(id) {}
    // Tells of what was left out since the last lines.
    ~RefusalLog();

    // How often a limit bit, with and without a line.
    uint64_t CountRefused() const noexcept { return refused_.load(std::memory_order_relaxed); }

    void Report(Limit limit, const Caller& caller, uint64_t used, uint64_t allowed, const char* detail = "");

private:
    struct Entry {
        int64_t last = 0;  // when it was written, in milliseconds; 0: never
        uint64_t suppressed = 0;
    };
    static constexpr size_t LIMITS = static_cast<size_t>(Limit::WORKERS) + 1;

    const int32_t id_;
    std::atomic<uint64_t> refused_{0};
    Mutex mutex_;
    std::array<Entry, LIMITS> entries_ GUARDED_BY(mutex_);
};

}  // namespace VARN::Host
