// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>

#include "varn/host/ability_server.h"

namespace SecurityPrivacyExample {

// Counts the requests that the server answers, by request code. Nothing of what they say is looked at.
//
// Thread safety: every operation may be called from any thread.
class RequestCounters {
public:
    void Count(const VARN::Host::Transaction& transaction);

    // One line for each code that was seen.
    void Print(std::FILE* out) const;

private:
    struct Counter {
        uint64_t requests = 0;
        uint64_t errors = 0;  // a status other than 0
        uint64_t requestBytes = 0;
        uint64_t replyBytes = 0;
        std::chrono::nanoseconds total{0};
        std::chrono::nanoseconds longest{0};
    };

    // One for each code up to the last one; the place of code 0 takes all codes that do not exist, so that a client
    // which tries them all takes no memory.
    static constexpr size_t PLACES = 14;

    mutable std::mutex mutex_;
    std::array<Counter, PLACES> counters_;  // guarded by mutex_
};

}  // namespace SecurityPrivacyExample
