// SPDX-License-Identifier: Apache-2.0
// The floor with a plain codec: what one would write by hand instead of using a library. Built twice: `floor-codec`
// writes the records from where the service keeps them; `floor-list` has the service fill a list first, as our
// interface has it.
#include <array>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/contenders/unix_socket.h"
#include "bench/harness.h"

namespace bench {
namespace {

// The codec that a careful engineer writes in an afternoon: numbers as they are, texts and lists behind their 32-bit
// length, a writer that appends to a string and a reader that never leaves the message.
class Writer {
public:
    // A message begins with its length in all, which `Finish` fills in. The buffer keeps its memory between messages.
    void Begin() { buffer_.assign(sizeof(uint32_t), '\0'); }
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
        } else if constexpr (kHasFields<T>) {
            Put(T::Fields(value));
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
        } else if constexpr (std::is_same_v<T, std::string>) {
            const auto size = Get<uint32_t>();
            value.assign(Take(size), size);
        } else {
            auto fields = T::Fields(value);
            Get(fields);
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
    explicit Peer(const Workload& workload) : socket_(workload.directory) {}

    template <class Request>
    auto Ask(const Request& request)
    {
        writer_.Begin();
        writer_.Put(Request::kOperation);
        writer_.Put(request.arguments);
        Reader reader(socket_.Call(writer_.Finish()));
        if (reader.Get<int32_t>() != 0) {
            throw std::runtime_error("the request failed");
        }
        return reader.Get<typename Request::Answer>();
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
    if constexpr (BENCH_FILLS_LIST) {
        writer.Put(Answer(std::get<Answer>(answers)));
    } else {
        writer.Put(std::get<Answer>(answers));
    }
}

// By operation.
constexpr std::array kReplies = {Reply<InfoRequest>, Reply<SetRequest>, Reply<UsageRequest>, Reply<RowRequest>};

}  // namespace

void Serve(const Workload& workload)
{
    const Answers answers = MakeAnswers(workload);
    ServeOnThreads(workload.directory, [&answers](int descriptor) {
        Writer writer;
        MessageSocket(descriptor).Serve([&answers, &writer](std::string_view message) {
            Reader reader(message);
            writer.Begin();
            writer.Put(int32_t{0});
            kReplies.at(reader.Get<uint32_t>())(answers, reader, writer);
            return writer.Finish();
        });
    });
}

std::unique_ptr<Client> Connect(const Workload& workload)
{
    return MakeClient<Peer, InfoRequest, SetRequest, UsageRequest, RowRequest>(workload);
}

}  // namespace bench
