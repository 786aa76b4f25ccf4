// SPDX-License-Identifier: Apache-2.0
#include "host/server/connection.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include "host/base/process.h"
#include "host/server/clock.h"
#include "parcel_buffer.h"
#include "platform_log.h"

namespace VARN::Host {

Worker::Worker() = default;

std::unique_ptr<MessageParcel> Worker::TakeReply()
{
    auto other = std::make_unique<MessageParcel>();
    const size_t size = reply->GetDataSize();
    if (ParcelBuffer::Capacity(*reply) <= 2 * std::max(size, KEPT_CAPACITY)) {
        reply.swap(other);
        return other;
    }
    uint8_t* space = ParcelBuffer::Space(*other, size);
    if (space == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(space, ParcelBuffer::Data(*reply), size);
    ParcelBuffer::Commit(*other, size);
    return other;
}

Connection::Next Connection::Serve(Worker& worker, bool hangUp)
{
    // Requests may be waiting behind the reply, so the visit goes on.
    const Next next = Flush(worker);
    if (next != Next::INPUT) {
        return next;
    }
    return input_ ? ReadRest(worker) : ReadFirst(worker, hangUp);
}

// Most requests arrive whole and are handled where they were received.
Connection::Next Connection::ReadFirst(Worker& worker, bool hangUp)
{
    size_t size = ahead_.size();
    bool drained = false;
    if (size != 0) {
        std::memcpy(worker.piece.data(), ahead_.data(), size);
        std::vector<uint8_t>().swap(ahead_);
    } else {
        auto next = Next::INPUT;
        size = Receive(worker.piece.data(), worker.piece.size(), next);
        if (size == 0) {
            return next;
        }
        // A short read has emptied the socket, so there is no need to ask it again. After a hang-up there is.
        drained = size < worker.piece.size() && !hangUp;
    }
    MessageParcel body;
    body.SetMaxCapacity(context_.options.maxRequestBytes);
    FrameReader reader(FrameKind::REQUEST, body);
    FrameReader::State state = reader.CheckHeader(worker.piece.data(), size);
    const FrameHeader& header = reader.GetHeader();
    if (state == FrameReader::State::PARTIAL) {
        input_ = std::make_unique<Input>(context_, account_);
        deadline_.store(SteadyMilliseconds() + context_.options.stallTimeout.count());
        size_t taken = 0;
        state = input_->reader.Feed(worker.piece.data(), size, taken);
        return state == FrameReader::State::PARTIAL ? ReadRest(worker) : Refuse(input_->reader, state);
    }
    if (state != FrameReader::State::COMPLETE) {
        return Refuse(reader, state);
    }
    const size_t end = FRAME_HEADER_SIZE + header.length;
    if (end < size) {
        ahead_.assign(worker.piece.data() + end, worker.piece.data() + size);
        worker.hasFreedMuch = true;  // many peers that send ahead make one that is long
    }
    ParcelBuffer::Lend(body, worker.piece.data() + FRAME_HEADER_SIZE, header.length);
    const Next next = Dispatch(worker, header, body);
    // A peer that sends without end must not keep the worker to itself.
    return next == Next::INPUT && !(drained && ahead_.empty()) ? Next::TURN : next;
}

Connection::Next Connection::ReadRest(Worker& worker)
{
    FrameReader::State state = FrameReader::State::PARTIAL;
    while (state == FrameReader::State::PARTIAL) {
        size_t room = 0;
        uint8_t* space = input_->reader.Space(room);
        if (space == nullptr) {
            return Refuse(input_->reader, FrameReader::State::NO_MEMORY);
        }
        // Before the room is filled, it is only promised by the system.
        if (!input_->charge.GrowTo(ParcelBuffer::Capacity(input_->body), caller_)) {
            return Next::CLOSE;
        }
        worker.hasFreedMuch |= context_.NoteUse(ParcelBuffer::Capacity(input_->body));
        auto next = Next::INPUT;
        const size_t size = Receive(space, room, next);
        if (size == 0) {
            return next;
        }
        state = input_->reader.Commit(size);
    }
    if (state != FrameReader::State::COMPLETE) {
        return Refuse(input_->reader, state);
    }
    const std::unique_ptr<Input> input = std::move(input_);
    deadline_.store(0);
    const Next next = Dispatch(worker, input->reader.GetHeader(), input->body);
    return next == Next::INPUT ? Next::TURN : next;
}

// How many bytes have come; for none `next` says what to do.
size_t Connection::Receive(void* to, size_t room, Next& next)
{
    const ssize_t got = TEMP_FAILURE_RETRY(fd_.Receive(to, room));
    next = got < 0 && errno == EAGAIN ? Next::INPUT : Next::CLOSE;
    if (got < 0 && errno == EPERM) {
        context_.Refuse(&account_, Limit::DESCRIPTORS_SENT, caller_, 1, 0);
    }
    return static_cast<size_t>(std::max<ssize_t>(got, 0));
}

Connection::Next Connection::Refuse(const FrameReader& reader, FrameReader::State state)
{
    const uint64_t length = reader.GetHeader().length;
    if (state == FrameReader::State::TOO_LONG) {
        context_.Refuse(&account_, Limit::REQUEST_BYTES, caller_, length, context_.options.maxRequestBytes);
    } else if (state == FrameReader::State::INVALID) {
        context_.Refuse(&account_, Limit::PROTOCOL, caller_, 1, 0, reader.GetProblem());
    } else {
        PLATFORM_ERROR("no memory for a request of %u bytes from uid %u pid %d", reader.GetHeader().length, caller_.uid,
                       caller_.pid);
    }
    return Next::CLOSE;
}

Connection::Next Connection::Dispatch(Worker& worker, const FrameHeader& header, MessageParcel& data)
{
    MessageParcel& reply = *worker.reply;
    ParcelBuffer::Clear(reply, Worker::KEPT_CAPACITY);
    reply.SetMaxCapacity(context_.GetReplyBound());
    worker.code.store(header.code, std::memory_order_relaxed);
    const bool observed = static_cast<bool>(context_.options.observer);
    using Clock = std::chrono::steady_clock;
    const auto begin = observed ? Clock::now() : Clock::time_point();
    MessageOption option;
    FrameHeader answer;
    answer.kind = FrameKind::REPLY;
    answer.code = header.code;
    {
        const CallerScope scope(caller_);
        answer.status = context_.stub->SendRequest(header.code, data, reply, option);
    }
    const std::chrono::nanoseconds duration = observed ? Clock::now() - begin : Clock::duration();
    if (ParcelBuffer::IsCut(reply)) {
        context_.Refuse(&account_, Limit::REPLY_LENGTH, caller_, reply.GetDataSize(), ParcelBuffer::MaxCapacity(reply),
                        "the rest does not fit, or memory ran out");
        // Most operations do not look whether their writes succeed: a peer must not take a part for the whole.
        if (answer.status == 0) {
            answer.status = IPC_TOO_LARGE;
            ParcelBuffer::Clear(reply, Worker::KEPT_CAPACITY);
        }
    }
    answer.length = static_cast<uint32_t>(reply.GetDataSize());
    worker.hasFreedMuch |= context_.NoteUse(std::max(header.length, answer.length));
    const Next next = Reply(worker, answer);
    // Now, since the worker's next request may be long in coming.
    ParcelBuffer::Clear(*worker.reply, Worker::KEPT_CAPACITY);
    if (observed) {
        context_.options.observer({header.code, caller_, header.length, answer.length, duration, answer.status});
    }
    return next;
}

// Moves `sent` as far as the socket takes it. INPUT when all has left.
Connection::Next Connection::SendSome(const FrameHeader& header, const MessageParcel& body, size_t& sent) const
{
    const int error = SendFrame(fd_.Get(), header, body, sent);
    if (error != 0 && error != EAGAIN) {
        return Next::CLOSE;
    }
    // A socket that did not take all is full: there is no need to ask it again.
    return sent < sizeof(header) + header.length ? Next::OUTPUT : Next::INPUT;
}

Connection::Next Connection::Reply(Worker& worker, const FrameHeader& header)
{
    size_t sent = 0;
    const Next next = SendSome(header, *worker.reply, sent);
    if (next != Next::OUTPUT) {
        return next;
    }
    auto body = worker.TakeReply();
    output_ = std::make_unique<Output>(context_, account_);
    output_->header = header;
    output_->sent = sent;
    output_->body = std::move(body);
    if (!output_->charge.GrowTo(header.length, caller_)) {
        return Next::CLOSE;
    }
    deadline_.store(SteadyMilliseconds() + context_.options.replyTimeout.count());
    return next;
}

Connection::Next Connection::Flush(Worker& worker)
{
    if (!output_) {
        return Next::INPUT;
    }
    const Next next = SendSome(output_->header, *output_->body, output_->sent);
    if (next == Next::INPUT) {
        worker.reply.swap(output_->body);
        ParcelBuffer::Clear(*worker.reply, Worker::KEPT_CAPACITY);
        output_.reset();
        deadline_.store(0);
    }
    return next;
}

}  // namespace VARN::Host
