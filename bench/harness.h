// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "bench/records.h"

namespace bench {

// One case as the command line gives it.
struct Workload {
    std::string directory;  // where both sides keep their sockets; the two of them have it to themselves
    AnyRequest request;
    size_t records = 0;       // how many records come back
    size_t requestBytes = 0;  // for the contender without a codec: the length of its messages
    size_t replyBytes = 0;
};

// Each contender is a program of its own, so that its memory is its own, and defines these two.

// Makes the workload's records ready, listens, calls `AnnounceReady` and serves until the process is ended.
void Serve(const Workload& workload);

// Calls `RunClient`.
void Connect(const Workload& workload);

// Tells the driver that a client may connect.
void AnnounceReady();

// What the server of a workload answers to each request; empty for those that the workload does not have.
using Answers = std::tuple<std::vector<Info>, bool, std::vector<Usage>, std::vector<Row>>;
Answers MakeAnswers(const Workload& workload);

// One client with its connection.
class Client {
public:
    virtual ~Client() = default;

    // One request and its whole answer, which replaces the one before. Throws when it fails.
    virtual void Call() = 0;

    // Drops the last answer, so that the next call does not have to.
    virtual void Forget() = 0;
};

// Does what the driver says on standard input, see harness.cpp.
void Obey(Client& client);

template <class Peer, class Request>
class TypedClient final : public Client {
public:
    explicit TypedClient(const Workload& workload) : peer_(workload), request_(std::get<Request>(workload.request)) {}

    // Said, because the destructor of a peer may say that it throws.
    ~TypedClient() noexcept override = default;

    // Every answer goes into a new list, as in a program that calls once.
    void Call() override
    {
        Forget();
        answer_ = peer_.Ask(request_);
    }

    // Not `= {}`, which keeps a vector's memory.
    void Forget() override { answer_ = Answer(); }

    // Whether the last answer holds what the makers of records.h make.
    bool IsAnswerRight(size_t records) const
    {
        if constexpr (std::is_same_v<Answer, bool>) {
            return answer_;
        } else {
            const auto right = MakeAnswer<typename Request::Answer>(records);
            using Plain = typename Request::Answer::value_type;
            return std::equal(
                answer_.begin(), answer_.end(), right.begin(), right.end(),
                [](const auto& left, const Plain& plain) { return FieldsOf<Plain>(left) == Plain::Fields(plain); });
        }
    }

private:
    using Answer = decltype(std::declval<Peer&>().Ask(std::declval<const Request&>()));

    Peer peer_;
    const Request request_;
    Answer answer_{};
};

// The client of a contender, for workloads that have one of these requests. A `Peer` is made from the workload. Its
// `Ask(request)` returns the answer, a list of records or a bool, and throws when the request fails.
template <class Peer, class Request, class... Others>
void RunClient(const Workload& workload)
{
    if (std::holds_alternative<Request>(workload.request)) {
        TypedClient<Peer, Request> client(workload);
        client.Call();
        if (!client.IsAnswerRight(workload.records)) {
            throw std::runtime_error("the answer is wrong");
        }
        Obey(client);
    } else if constexpr (sizeof...(Others) > 0) {
        RunClient<Peer, Others...>(workload);
    } else {
        throw std::runtime_error("this case is not measured here");
    }
}

}  // namespace bench
