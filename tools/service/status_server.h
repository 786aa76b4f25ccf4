// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "varn/host/ability_server.h"

namespace SecurityPrivacyTools {

// A socket for root and the own user alone, which only writes: first the status, one line, then a line for each request
// that is finished. A watcher that reads too slowly loses lines and is told how many ({"lost": 17}); the requests and
// the other watchers never wait for it. While nobody watches, a request costs the test of one flag.
//
// Thread safety: `Tell` may be called from any thread, the others from the one that made it.
class StatusServer {
public:
    // `status` makes the first line; it is called on the thread of this server.
    explicit StatusServer(std::function<std::string()> status) : status_(std::move(status)) {}
    // Stops: ends all connections, and takes the socket file away if it was made here.
    ~StatusServer();

    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

    // Serves on `listener`, or, if that is below 0, on a new socket `path` (mode 0600) in place of one that a dead
    // service left. False, with the error in errno, when there can be none; `Tell` does nothing then.
    bool Start(int listener, const std::string& path);

    void Tell(const VARN::Host::Transaction& transaction);

private:
    struct Watcher {
        int socket;
        std::string pending;  // what the socket has not taken yet
        uint64_t lost;        // lines since the last one that is in `pending`
    };

    bool Bind(const std::string& path);
    void Run();
    void Accept();
    static bool Flush(Watcher& watcher);

    const std::function<std::string()> status_;
    std::string path_;  // the socket file, if it was made here
    int listener_ = -1;
    int wake_ = -1;
    std::thread thread_;

    std::atomic<bool> isWatched_{false};
    std::mutex mutex_;
    bool isStopping_ = false;        // guarded by mutex_, as are
    std::vector<Watcher> watchers_;  // these; the thread alone adds and removes some
};

}  // namespace SecurityPrivacyTools
