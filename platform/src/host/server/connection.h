// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "host/server/peer_socket.h"
#include "host/server/refusal_log.h"
#include "host/wire/frame_reader.h"
#include "varn/host/ability_server.h"

namespace VARN::Host {

// What one user id holds of a server.
struct UserAccount {
    size_t connections = 0;  // guarded by the slot table's lock
    // Relaxed: a sum that is compared with a limit; nothing else hangs on it.
    std::atomic<size_t> waitingReplyBytes{0};
};

// What the connections of one server share.
struct ServiceContext {
    const int32_t id;
    const sptr<IPCObjectStub> stub;
    const AbilityServerOptions options;
    RefusalLog refusals;
};

// What a worker brings along from one request to the next, so that an idle connection needs no buffer.
struct WorkerBuffers {
    static constexpr size_t PIECE_SIZE = 16384;

    // What is kept of a reply's buffer for the next one: while requests come, as much as all but the longest take,
    // since fresh memory costs as much as filling it; of an idle worker little.
    static constexpr size_t KEPT_CAPACITY = size_t{4} * 1024 * 1024;
    static constexpr size_t KEPT_IDLE_CAPACITY = 65536;

    bool HoldsMuch() const noexcept;
    void LetGo() noexcept;

    // The reply, to be kept for a peer that has not read all of it yet. A short one in a long buffer is copied out of
    // it: what waits is counted by its bytes, and must not hold much more memory than that.
    std::unique_ptr<MessageParcel> TakeReply();

    alignas(FrameHeader) std::array<uint8_t, PIECE_SIZE> piece;
    std::unique_ptr<MessageParcel> reply;  // null until it is first needed
};

// One accepted connection: reads requests, has them handled, writes replies, and never waits. It reads nothing while a
// reply waits to be read by the peer, so a peer that only sends stops itself.
//
// Thread safety: none; its `Slot` sees to it that one thread at a time owns it.
class Connection {
public:
    enum class Next {
        INPUT,   // wait until the peer sends
        OUTPUT,  // wait until the peer reads
        TURN,    // there is more to do, but it is others' turn first
        CLOSE,   // it is over
    };

    // In `deadline` the connection writes by when it must have moved on, in nanoseconds of the steady clock; 0: no
    // hurry. Any thread may read it without owning the connection.
    Connection(PeerSocket fd, const Caller& caller, UserAccount& account, std::atomic<int64_t>& deadline) noexcept;
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Does what can be done without waiting, one request at the most. `hangUp`: the peer has closed its end.
    Next Serve(ServiceContext& context, WorkerBuffers& buffers, bool hangUp);

    // Writes what waits. INPUT when nothing waits any more; the reply's buffer then goes to `buffers`.
    Next Flush(WorkerBuffers& buffers);

    int GetFd() const noexcept { return fd_.Get(); }

    // The socket, to be closed when everything else of the connection is gone.
    PeerSocket TakeFd() noexcept { return std::move(fd_); }

    const Caller& GetCaller() const noexcept { return caller_; }
    UserAccount& GetAccount() const noexcept { return account_; }
    bool HasOutput() const noexcept { return output_ != nullptr; }

private:
    enum class Received { SOME, NOTHING, DESCRIPTORS, END };

    struct Output {
        FrameHeader header;
        std::unique_ptr<MessageParcel> body;
        size_t sent = 0;
    };

    Next ReadFirst(ServiceContext& context, WorkerBuffers& buffers, bool hangUp);
    Next ReadRest(ServiceContext& context, WorkerBuffers& buffers);
    Next BeginRest(ServiceContext& context, WorkerBuffers& buffers, size_t size);
    Received Receive(void* to, size_t room, size_t& size) const;
    Next StopReading(ServiceContext& context, Received received);
    Next Refuse(ServiceContext& context, const FrameReader& reader, FrameReader::State state);
    Next Dispatch(ServiceContext& context, WorkerBuffers& buffers, const FrameHeader& header, MessageParcel& data);
    Next Reply(ServiceContext& context, WorkerBuffers& buffers, const FrameHeader& header);
    bool SendSome(const FrameHeader& header, const MessageParcel& body, size_t& sent) const;
    void SetDeadline(std::chrono::milliseconds fromNow) noexcept;

    PeerSocket fd_;
    const Caller caller_;
    UserAccount& account_;
    std::atomic<int64_t>& deadline_;
    std::unique_ptr<FrameReader> input_;  // a request that has arrived in part
    std::vector<uint8_t> ahead_;          // what the peer sent behind a request
    std::unique_ptr<Output> output_;      // a reply that the peer has read in part
};

}  // namespace VARN::Host
