// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "host/server/peer_socket.h"
#include "host/server/service_context.h"
#include "host/wire/frame.h"

namespace VARN::Host {

// A thread that runs requests: what it is doing, for the watcher, which tells of workers that are stuck, and what it
// brings along from one request to the next, so that an idle connection needs no buffer.
struct Worker {
    Worker();

    static constexpr size_t PIECE_SIZE = 16384;

    // What is kept of a reply's buffer for the next one. A longer one is for whichever worker needs one next: kept
    // here, each worker that ever made a long reply would hold one.
    static constexpr size_t KEPT_CAPACITY = 65536;

    // The reply, to be kept for a peer that has not read all of it yet. A short one in a long buffer is copied out of
    // it: what waits is counted by its bytes, and must not hold much more memory than that.
    std::unique_ptr<MessageParcel> TakeReply();

    // Since when it has been serving a connection, in milliseconds; 0: it is not. Sequentially consistent together with
    // the watcher's next look, as a deadline is.
    std::atomic<int64_t> since{0};
    // Relaxed: for a line.
    std::atomic<uint32_t> code{0};
    std::atomic<uid_t> uid{0};

    // Only the thread itself touches these. The piece begins as it is: pages of it that are not used take no memory.
    alignas(FrameHeader) std::array<uint8_t, PIECE_SIZE> piece;
    std::unique_ptr<MessageParcel> reply = std::make_unique<MessageParcel>();
    bool hasFreedMuch = false;  // since it was last idle for a while, see GiveArenaBack

    // Only the pool touches these, under its lock.
    size_t number = 0;
    int64_t toldSince = 0;  // of which request its line was written
    std::thread thread;
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
        STAY,    // a worker waits for it (Serve never says so): only a hang-up is reported, once, which is always on
        CLOSE,   // it is over
    };

    // In `deadline` the connection writes by when it must have moved on, in milliseconds of the steady clock; 0: no
    // hurry. Any thread may read it without owning the connection.
    // `context` and `account` outlive the connection.
    Connection(ServiceContext& context, PeerSocket fd, const Caller& caller, Account& account,
               std::atomic<int64_t>& deadline) noexcept
        : context_(context), fd_(std::move(fd)), caller_(caller), account_(account), deadline_(deadline)
    {
    }
    ~Connection() { deadline_.store(0); }

    // Does what can be done without waiting, one request at the most. `hangUp`: the peer has closed its end.
    Next Serve(Worker& worker, bool hangUp);

    // Writes what waits. INPUT when nothing waits any more; the reply's buffer then goes to `worker`.
    Next Flush(Worker& worker);

    int GetFd() const noexcept { return fd_.Get(); }

    // The socket, to be closed when everything else of the connection is gone.
    PeerSocket TakeFd() noexcept { return std::move(fd_); }

    const Caller& GetCaller() const noexcept { return caller_; }
    bool HasOutput() const noexcept { return output_ != nullptr; }
    // Whether nothing is in hand: no reply, no part of a request.
    bool IsAtStart() const noexcept { return !output_ && !input_ && ahead_.empty(); }

private:
    struct Input {
        Input(ServiceContext& context, Account& account) : charge(context, account, Limit::BEGUN_REQUEST_BYTES)
        {
            body.SetMaxCapacity(context.options.maxRequestBytes);
        }
        Charge charge;
        MessageParcel body;
        FrameReader reader{FrameKind::REQUEST, body};
    };
    struct Output {
        Output(ServiceContext& context, Account& account) : charge(context, account, Limit::REPLY_BYTES) {}
        Charge charge;
        FrameHeader header;
        std::unique_ptr<MessageParcel> body;
        size_t sent = 0;
    };

    Next ReadFirst(Worker& worker, bool hangUp);
    Next ReadRest(Worker& worker);
    size_t Receive(void* to, size_t room, Next& next);
    Next Refuse(const FrameReader& reader, FrameReader::State state);
    Next Dispatch(Worker& worker, const FrameHeader& header, MessageParcel& data);
    Next Reply(Worker& worker, const FrameHeader& header);
    Next SendSome(const FrameHeader& header, const MessageParcel& body, size_t& sent) const;

    ServiceContext& context_;
    PeerSocket fd_;
    const Caller caller_;
    Account& account_;
    std::atomic<int64_t>& deadline_;
    std::unique_ptr<Input> input_;    // a request that has arrived in part
    std::vector<uint8_t> ahead_;      // what the peer sent behind a request
    std::unique_ptr<Output> output_;  // a reply that the peer has read in part
};

}  // namespace VARN::Host
