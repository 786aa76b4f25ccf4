// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "varn/host/ability_server.h"

namespace SecurityPrivacyTools {

// Milliseconds since the epoch.
int64_t Now();

// What an operator may know: numbers about requests and connections, and nothing of what requests say. Whoever watches
// its socket is sent the status, one line, then a line for each request that is finished. A watcher that reads too
// slowly loses lines and is told how many ({"lost": 17}); the requests and the other watchers never wait for it.
//
// Thread safety: `Count` and `Document` may be called from any thread, the others from the one that made it.
class Status {
public:
    // `statistics` tells what the server holds, on the thread that asks for the status.
    explicit Status(std::function<VARN::Host::ServerStatistics()> statistics) : statistics_(std::move(statistics)) {}
    // Ends all connections, and takes the socket file away if it was made here.
    ~Status();

    // Lets root and the own user, and nobody else, watch on `listener`, or, if that is below 0, on a new socket `path`
    // (mode 0600) in place of one that a dead service left. Throws std::system_error when there can be none.
    void Serve(int listener, const std::string& path);

    // For each request that is finished.
    void Count(const VARN::Host::Transaction& transaction);

    // One JSON document on one line. tools/README.md describes its members.
    std::string Document() const;

private:
    struct Counter {
        uint64_t requests = 0;
        uint64_t errors = 0;  // a status other than 0
        uint64_t requestBytes = 0;
        uint64_t replyBytes = 0;
        std::chrono::nanoseconds total{0};
        std::chrono::nanoseconds longest{0};
    };
    struct Watcher {
        int socket;
        std::string pending;  // what the socket has not taken yet
        uint64_t lost;        // lines since the last one that is in `pending`
    };

    bool Bind(const std::string& path);
    void Run();
    void Accept();
    static bool Flush(Watcher& watcher);

    const std::function<VARN::Host::ServerStatistics()> statistics_;
    const int64_t startedAt_ = Now();
    std::string path_;  // the socket file, if it was made here
    int listener_ = -1;
    int wake_ = -1;
    std::atomic<bool> isStopping_{false};
    std::thread thread_;

    mutable std::mutex mutex_;
    // By code, guarded by mutex_. Code 0 takes all codes that do not exist, so that a client which tries them all takes
    // no memory.
    std::map<uint32_t, Counter> counters_;
    std::vector<Watcher> watchers_;  // guarded by mutex_; the thread alone adds and removes some
};

}  // namespace SecurityPrivacyTools
