// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <memory>
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

// One client with its connection.
class Client {
public:
    virtual ~Client() = default;

    // One request and its whole answer, which replaces the one before. Throws when it fails.
    virtual void Call() = 0;

    // Drops the last answer, so that the next call does not have to.
    virtual void Forget() = 0;

    // Whether the last answer holds what the makers of records.h make.
    virtual bool IsAnswerRight() const = 0;
};

// Each contender is a program of its own, so that its memory is its own, and defines these two.

// Makes the workload's records ready, listens, calls `AnnounceReady` and serves until the process is ended.
void Serve(const Workload& workload);

std::unique_ptr<Client> Connect(const Workload& workload);

// Tells the driver that a client may connect.
void AnnounceReady();

// What the server of a workload answers to each request; empty for those that the workload does not have.
using Answers = std::tuple<std::vector<Info>, bool, std::vector<Usage>, std::vector<Row>>;
Answers MakeAnswers(const Workload& workload);

// The client of a contender. A `Peer` is made from the workload. Its `Ask(request)` returns the answer, a list of
// records or a bool, and throws when the request fails.
template <class Peer, class Request>
class TypedClient final : public Client {
public:
    explicit TypedClient(const Workload& workload)
        : peer_(workload), records_(workload.records), request_(std::get<Request>(workload.request))
    {
    }

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

    bool IsAnswerRight() const override
    {
        if constexpr (std::is_same_v<Answer, bool>) {
            return answer_;
        } else {
            const auto right = MakeAnswer<typename Request::Answer>(records_);
            using Plain = typename Request::Answer::value_type;
            return std::equal(
                answer_.begin(), answer_.end(), right.begin(), right.end(),
                [](const auto& left, const Plain& plain) { return FieldsOf<Plain>(left) == Plain::Fields(plain); });
        }
    }

private:
    using Answer = decltype(std::declval<Peer&>().Ask(std::declval<const Request&>()));

    Peer peer_;
    const size_t records_;
    const Request request_;
    Answer answer_{};
};

// A client for a workload that has one of these requests.
template <class Peer, class... Requests>
std::unique_ptr<Client> MakeClient(const Workload& workload)
{
    std::unique_ptr<Client> client;
    ((std::holds_alternative<Requests>(workload.request) &&
      (client = std::make_unique<TypedClient<Peer, Requests>>(workload))),
     ...);
    if (client == nullptr) {
        throw std::runtime_error("this case is not measured here");
    }
    return client;
}

}  // namespace bench
