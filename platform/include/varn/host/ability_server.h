// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "varn/export.h"
#include "varn/host/caller.h"
#include "varn/ref_base.h"
#include "varn/remote_stub.h"

namespace VARN::Host {

// One request that was answered, as an observer sees it. Nothing of what the messages say.
struct Transaction {
    uint32_t code;                      // the request code
    Caller caller;                      // who sent it
    size_t requestBytes;                // length of the request's body
    size_t replyBytes;                  // the same of the reply
    std::chrono::nanoseconds duration;  // inside the service, without the socket
    int32_t status;                     // what the service returned, or an IpcCode
};

// How a server protects itself. Each limit that bites writes one warn line (who, which limit, used, allowed; at most
// one a second for each limit, with a count of those left out) and ends the connection, which the client sees as
// IPC_DEAD_OBJECT. Not so for workers: when a user has its share of them at work, its further requests wait their turn.
// A 0 in a number means its default; a time beyond a year is a year.
//
// Besides its own limits a user gets at most 1/(n+1) of what the n other users that hold something leave of the totals
// (connections, bytes, workers), but always a little. Root and the service's own user have a reserve.
struct AbilityServerOptions {
    // Where the socket `<id>.sock` stands. Empty: as the client looks for it, see AbilityManager.
    std::string directory;

    // Threads that run requests, shared by the users; each but the first few is started when all before it have
    // something to do. Default: one for each processor, at least 8, so that a few slow operations do not stop others.
    size_t workers = 0;

    // Connections at a time. Each costs a descriptor and a little memory; without a bound a peer takes all descriptors.
    // Less, with a warn line at the start, when the process may not open so many. At the limit the longest idle
    // connection of the user with the most is closed; only where none is idle the newcomer is refused.
    size_t maxConnections = 1024;

    // The same for one user id, so that one app cannot take the places of all; it loses its own longest idle one.
    size_t maxConnectionsPerUser = 128;

    // Length of a request's body. It is tested on the header, before a byte is stored.
    size_t maxRequestBytes = size_t{16} * 1024 * 1024;

    // The time from the first byte of a request to its last. A trickle does not prolong it.
    std::chrono::milliseconds stallTimeout = std::chrono::seconds(10);

    // The time that a peer may take to read a reply, from its first byte.
    std::chrono::milliseconds replyTimeout = std::chrono::seconds(30);

    // Bytes of replies that wait in this process for the readers of one user id: a peer that never reads must not fill
    // the memory.
    size_t maxWaitingReplyBytesPerUser = size_t{64} * 1024 * 1024;

    // Told of every request after its reply was handed to the socket, on the worker's thread, by several at once. It
    // must not throw. Empty: nothing is called, and no clock is read.
    std::function<void(const Transaction&)> observer;

    // Bytes of requests that have arrived in part, of one user id: peers that each stop a byte short of a long request
    // must not fill the memory.
    size_t maxBegunRequestBytesPerUser = size_t{64} * 1024 * 1024;

    // Bytes of begun requests and of waiting replies, of all users together: eight users must not fill the memory
    // either. A reply that is being made may grow to a quarter of what is left, divided by the workers at work, and
    // to `maxWaitingReplyBytesPerUser` at most; past that the service's writes fail, and unless the operation fails
    // for it, its caller gets IPC_TOO_LARGE: a part must not pass for the whole.
    size_t maxBytes = size_t{256} * 1024 * 1024;

    // Threads beyond `workers`: for users that have none at work while others hold them all, and in place of workers
    // that are stuck. A user with slow operations must not keep another from its first worker.
    size_t maxSpareWorkers = 16;

    // An operation that runs for longer counts as stuck: one warn line says which worker, request code and user, and
    // another worker may take its place.
    std::chrono::milliseconds stuckAfter = std::chrono::seconds(10);
};

// What one user holds of a server.
struct UserStatistics {
    uid_t uid;             // who it is
    size_t connections;    // open ones
    size_t requestBytes;   // of requests that have arrived in part
    size_t replyBytes;     // of replies that wait for their reader
    size_t workersAtWork;  // that serve its connections
    size_t waiting;        // connections that wait for their turn
    uint64_t refused;      // limits that bit, since the user last had no connection
};

// What a server holds and does at one moment. The numbers are read one after the other, while work goes on.
struct ServerStatistics {
    size_t connections = 0;             // open ones
    size_t requestBytes = 0;            // of requests that have arrived in part
    size_t replyBytes = 0;              // of replies that wait for their reader
    size_t workers = 0;                 // threads, whatever they do
    size_t workersAtWork = 0;           // that serve connections
    size_t workersStuck = 0;            // at work for longer than `stuckAfter`
    size_t waiting = 0;                 // connections that wait for their turn
    uint64_t refused = 0;               // limits that bit, since the server was started
    std::vector<UserStatistics> users;  // those that have a connection, in no order
};

// Serves one object on a Unix socket. The listening socket comes from the init system by socket activation (LISTEN_FDS,
// LISTEN_PID; the variables are consumed), else the server binds `<directory>/<id>.sock` itself. A stale socket file is
// replaced, one that a server answers on is not.
//
// A child of a fork neither serves nor stops what its parent started: there `Start` is false and `Stop` does nothing.
//
// Thread safety: `Start` and `Stop` may be called from any thread but the service's own operations.
class VARN_API AbilityServer {
public:
    // Prepares to serve `stub` under the number `id`; nothing happens before `Start`.
    AbilityServer(int32_t id, sptr<IPCObjectStub> stub, AbilityServerOptions options = {});
    // Stops.
    ~AbilityServer();

    AbilityServer(const AbilityServer&) = delete;
    AbilityServer& operator=(const AbilityServer&) = delete;

    // Begins to serve; when it returns true, a client finds the service. False, with an error line that says what is
    // wrong and where, when the object is null, the server already runs, the folder is missing or unsafe, the path is
    // too long, another process serves it, or the system refuses. From then on the process's allocator keeps up to 8
    // MiB for each thread while requests come, and gives it back when it is quiet (mallopt(3)).
    bool Start();

    // Ends: takes the socket file away (unless the init system owns it), lets the requests that are running finish and
    // their replies go out (all readers together have two seconds), and closes all connections. Requests that had not
    // begun are not executed. When it returns, no operation of the service is running and no thread or descriptor of
    // the server is left. Harmless when not started.
    void Stop();

    // What the server holds now; nothing while it does not run. May be called from any thread, also from an operation.
    ServerStatistics Statistics() const;

private:
    class Engine;

    const int32_t id_;
    const sptr<IPCObjectStub> stub_;
    const AbilityServerOptions options_;
    const uint32_t generation_;  // of the process that made the server; a forked child never touches it
    std::mutex mutex_;           // held for the whole of `Start` and `Stop`
    mutable std::mutex engineMutex_;
    std::unique_ptr<Engine> engine_;  // guarded by engineMutex_; null when stopped
};

}  // namespace VARN::Host
