// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "varn/host/ability_server.h"

namespace SecurityPrivacyTools {

// Milliseconds since the epoch.
int64_t Now();

// What an operator may know: numbers about requests and connections, and nothing of what requests say.
//
// Thread safety: every operation may be called from any thread.
class Status {
public:
    void Count(const VARN::Host::Transaction& transaction);

    // One JSON document on one line. tools/README.md describes its members.
    std::string Document(const VARN::Host::AbilityServer& server) const;

    // The same for one request that is finished.
    static std::string Line(int64_t time, const VARN::Host::Transaction& transaction);

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

    const int64_t startedAt_ = Now();
    mutable std::mutex mutex_;
    std::array<Counter, PLACES> counters_;  // guarded by mutex_
};

}  // namespace SecurityPrivacyTools
