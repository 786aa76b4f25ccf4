// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "varn/host/log_sink.h"
#include "varn/ref_base.h"

namespace SecurityPrivacyExample {

struct ConnectionOptions {
    std::string directory;  // of the socket; empty: as the platform finds it
    int32_t waitSeconds = 4;
    bool isVerbose = false;
};

// What happened to the last request on its way.
struct Exchange {
    bool isFound = false;  // the service was found
    bool isSent = false;   // a request was sent to it; then:
    int32_t status = 0;    // what the exchange ended with: 0, the service's status, or an IpcCode
    std::chrono::nanoseconds finding{0};
    std::chrono::nanoseconds answering{0};
};

// Watches the requests of SecurityPrivacyClient, which tells a caller little: an unreachable service is a 0, and a
// refused, malformed or lost request a -1. It does so by standing in for the system ability manager that the client
// asks, and for the object that it gets from it. It also takes the log lines: all of them go to standard error when
// they are wanted, and otherwise the last error line is kept as the reason of a failure.
//
// One per process, for its whole life. Thread safety: requests from one thread at a time.
class Connection {
public:
    explicit Connection(const ConnectionOptions& options);
    ~Connection();

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // To be called after each request with what it returned. Throws Failure unless the service was found, answered, and
    // the result is 0.
    void Check(int64_t result) const;

    // The same without a look at the result: only whether there was an answer.
    void CheckExchange() const;

    const Exchange& Last() const { return exchange_; }

private:
    class Manager;
    class Object;

    void TakeLogLine(const VARN::Host::LogLine& line);
    std::string LastErrorLine() const;

    const bool isVerbose_;
    Exchange exchange_;

    mutable std::mutex mutex_;
    std::string lastErrorLine_;  // guarded by mutex_
};

}  // namespace SecurityPrivacyExample
