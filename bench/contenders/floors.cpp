// SPDX-License-Identifier: Apache-2.0
// A blocking Unix socket with a thread for each connection. Built three times: `floor` tells what the kernel charges
// for two messages, as many bytes as ours, there and back, with nothing in them. `floor-codec` has a plain codec, what
// one would write by hand instead of using a library, and writes the records from where the service keeps them.
// `floor-list` has the service fill a list first, as our interface has it.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/harness.h"

namespace bench {
namespace {

// Messages go back and forth in turn; each begins with its length in all, in 4 bytes, so that a short message takes one
// read and one write.
class MessageSocket {
public:
    explicit MessageSocket(int descriptor) : descriptor_(descriptor), buffer_(size_t{64} * 1024) {}
    ~MessageSocket() { close(descriptor_); }

    MessageSocket(const MessageSocket&) = delete;
    MessageSocket& operator=(const MessageSocket&) = delete;

    // A message with its length, valid until the next one; empty when the peer is gone.
    std::string_view Receive()
    {
        uint32_t length = sizeof(length);
        for (size_t received = 0; received < length;) {
            const ssize_t bytes = read(descriptor_, buffer_.data() + received, buffer_.size() - received);
            if (bytes <= 0) {
                return {};
            }
            received += static_cast<size_t>(bytes);
            if (received >= sizeof(length)) {
                std::memcpy(&length, buffer_.data(), sizeof(length));
                buffer_.resize(std::max<size_t>(buffer_.size(), length));
            }
        }
        return {buffer_.data(), length};
    }

    // False when the peer is gone: where no signal comes, a blocking socket takes a message whole.
    bool Send(std::string_view message) const
    {
        return send(descriptor_, message.data(), message.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
    }

private:
    const int descriptor_;
    std::vector<char> buffer_;  // never shrinks
};

// The codec that a careful engineer writes in an afternoon: numbers as they are, texts and lists behind their 32-bit
// length, a writer that appends to a string and a reader that never leaves the message.
class Writer {
public:
    // A message begins with its length in all, which `Finish` fills in. The buffer keeps its memory between messages.
    void Begin(size_t bytes = 0) { buffer_.assign(std::max(bytes, sizeof(uint32_t)), '\0'); }
    std::string_view Finish()
    {
        const auto length = static_cast<uint32_t>(buffer_.size());
        std::memcpy(buffer_.data(), &length, sizeof(length));
        return buffer_;
    }

    // A number, a text, a record or a list of them.
    template <class T>
    void Put(const T& value)
    {
        if constexpr (std::is_arithmetic_v<T>) {
            buffer_.append(reinterpret_cast<const char*>(&value), sizeof(value));
        } else if constexpr (std::is_same_v<T, std::string>) {
            Put(static_cast<uint32_t>(value.size()));
            buffer_.append(value);
        } else {
            Put(static_cast<uint32_t>(value.size()));
            for (const auto& element : value) {
                Put(element);
            }
        }
    }
    template <class... T>
    void Put(const std::tuple<T...>& values)
    {
        std::apply([this](const auto&... value) { (this->Put(value), ...); }, values);
    }

private:
    std::string buffer_;
};

class Reader {
public:
    // `message` with its length.
    explicit Reader(std::string_view message) : left_(message.substr(sizeof(uint32_t))) {}

    template <class T>
    T Get()
    {
        T value{};
        Get(value);
        return value;
    }

private:
    template <class T>
    void Get(T& value)
    {
        if constexpr (std::is_arithmetic_v<T>) {
            std::memcpy(&value, Take(sizeof(value)), sizeof(value));
        } else {
            const auto size = Get<uint32_t>();
            value.assign(Take(size), size);
        }
    }
    template <class... T>
    void Get(std::tuple<T...>& values)
    {
        std::apply([this](auto&... value) { (this->Get(value), ...); }, values);
    }
    template <class T>
    void Get(std::vector<T>& list)
    {
        list.resize(GetCount());
        for (T& element : list) {
            Get(element);
        }
    }
    void Get(std::unordered_set<std::string>& texts)
    {
        for (uint32_t count = GetCount(); count > 0; --count) {
            texts.insert(Get<std::string>());
        }
    }

    // A count of elements: no more than can be there.
    uint32_t GetCount()
    {
        const auto count = Get<uint32_t>();
        if (count > left_.size() / sizeof(uint32_t)) {
            throw std::runtime_error("the message is too short");
        }
        return count;
    }

    const char* Take(size_t bytes)
    {
        if (bytes > left_.size()) {
            throw std::runtime_error("the message is too short");
        }
        const char* taken = left_.data();
        left_.remove_prefix(bytes);
        return taken;
    }

    std::string_view left_;
};

class Peer {
public:
    explicit Peer(const Workload& workload) : socket_(SocketWith(connect, workload.SocketPath()))
    {
        writer_.Begin(BENCH_HAS_CODEC ? 0 : workload.requestBytes);
    }

    template <class Request>
    auto Ask(const Request& request)
    {
        if constexpr (BENCH_HAS_CODEC) {
            writer_.Begin();
            writer_.Put(Request::kOperation);
            writer_.Put(request.arguments);
        }
        const std::string_view reply = socket_.Send(writer_.Finish()) ? socket_.Receive() : std::string_view();
        if (reply.empty()) {
            throw std::runtime_error("the server is gone");
        }
        if constexpr (BENCH_HAS_CODEC) {
            Reader reader(reply);
            if (reader.Get<int32_t>() != 0) {
                throw std::runtime_error("the request failed");
            }
            return reader.Get<typename Request::Answer>();
        } else {
            return true;
        }
    }

private:
    MessageSocket socket_;
    Writer writer_;
};

template <class Request>
void Reply(const Answers& answers, Reader& reader, Writer& writer)
{
    using Answer = typename Request::Answer;
    reader.Get<decltype(Request::arguments)>();
    const std::conditional_t<BENCH_FILLS_LIST, Answer, const Answer&> answer = std::get<Answer>(answers);
    writer.Put(answer);
}

// By operation.
constexpr std::array kReplies = {Reply<InfoRequest>, Reply<SetRequest>, Reply<UsageRequest>, Reply<RowRequest>};

}  // namespace

void Serve(const Workload& workload)
{
    const Answers answers = BENCH_HAS_CODEC ? MakeAnswers(workload) : Answers();
    ServeOnThreads(workload.SocketPath(), [&](int descriptor) {
        MessageSocket socket(descriptor);
        Writer writer;
        writer.Begin(BENCH_HAS_CODEC ? 0 : workload.replyBytes);
        for (auto message = socket.Receive(); !message.empty(); message = socket.Receive()) {
            if constexpr (BENCH_HAS_CODEC) {
                Reader reader(message);
                writer.Begin();
                writer.Put(int32_t{0});
                kReplies.at(reader.Get<uint32_t>())(answers, reader, writer);
            }
            if (!socket.Send(writer.Finish())) {
                return;
            }
        }
    });
}

void Connect(const Workload& workload)
{
    RunClient<Peer, InfoRequest, SetRequest, UsageRequest, RowRequest>(workload);
}

}  // namespace bench
