// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

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
// IPC_DEAD_OBJECT. Not so for workers: when all are at work, requests wait. A 0 in a number means its default.
struct AbilityServerOptions {
    // Where the socket `<id>.sock` stands. Empty: as the client looks for it, see AbilityManager.
    std::string directory;

    // Threads that run requests, at most; each but the first few is started when all before it have something to do.
    // Default: one for each processor, at least 8, so that a few slow operations do not stop the others.
    size_t workers = 0;

    // Connections at a time. Each costs a descriptor and a little memory; without a bound a peer takes all descriptors.
    size_t maxConnections = 1024;

    // The same for one user id, so that one app cannot take the places of all.
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
    // must not throw. Empty: nobody is told, and no clock is read.
    std::function<void(const Transaction&)> observer;
};

// Serves one object on a Unix socket. The listening socket comes from the init system by socket activation (LISTEN_FDS,
// LISTEN_PID; the variables are consumed), else the server binds `<directory>/<id>.sock` itself. A stale socket file is
// replaced, one that somebody answers on is not.
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
    // too long, another process serves it, or the system refuses.
    bool Start();

    // Ends: takes the socket file away (unless the init system owns it), lets the requests that are running finish and
    // their replies go out, and closes all connections. Requests that had not begun are not executed. When it returns,
    // no operation of the service is running and no thread or descriptor of the server is left. Harmless when not
    // started.
    void Stop();

private:
    class Engine;

    const int32_t id_;
    const sptr<IPCObjectStub> stub_;
    const AbilityServerOptions options_;
    std::mutex mutex_;
    std::unique_ptr<Engine> engine_;  // guarded by mutex_; null when stopped
};

}  // namespace VARN::Host
