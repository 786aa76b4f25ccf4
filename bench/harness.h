// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <variant>

#include "bench/records.h"

namespace bench {

// Each contender is a program of its own, so that its memory is its own, and defines these two.

// Makes the workload's records ready, listens, calls `AnnounceReady` and serves until the process is ended.
void Serve(const Workload& workload);

// Calls `RunClient`.
void Connect(const Workload& workload);

// Tells the driver that a client may connect.
void AnnounceReady();

// A Unix socket that `bind` or `connect` has given the address, for the caller to close; throws when the system
// refuses.
int SocketWith(decltype(connect)* attach, const std::string& path);

// Listens at `path`, announces that, and accepts for ever; each connection gets a thread that runs `handle` and
// owns the descriptor.
[[noreturn]] void ServeOnThreads(const std::string& path, const std::function<void(int)>& handle);

// Does what the driver says on standard input, see harness.cpp. `call` makes one request and keeps its whole answer, or
// throws; `forget` drops the answer, so that the next call does not have to.
void Obey(const std::function<void()>& call, const std::function<void()>& forget);

// Whether an answer holds what `MakeAnswers` makes.
template <class Answer, class Right>
bool IsRight(Answer& answer, const Right& right)
{
    if constexpr (std::is_same_v<Answer, bool>) {
        return answer;
    } else {
        return std::equal(answer.begin(), answer.end(), right.begin(), right.end(),
                          [](auto& record, const auto& plain) { return FieldsOf(record) == plain; });
    }
}

// The client of a contender, for workloads that have one of these requests. A `Peer` is made from the workload. Its
// `Ask(request)` returns the answer, a list of records or a bool, and throws when the request fails.
template <class Peer, class... Requests>
void RunClient(const Workload& workload)
{
    const auto run = [&workload](const auto& request) {
        using Request = std::decay_t<decltype(request)>;
        if constexpr ((std::is_same_v<Request, Requests> || ...)) {
            Peer peer(workload);
            using Answer = decltype(peer.Ask(request));
            Answer answer{};
            // Not `= {}`, which keeps a vector's memory.
            const auto forget = [&answer] { answer = Answer(); };
            // Every answer goes into a new list, as in a program that calls once.
            const auto call = [&] {
                forget();
                answer = peer.Ask(request);
            };
            call();
            if (!IsRight(answer, std::get<typename Request::Answer>(MakeAnswers(workload)))) {
                throw std::runtime_error("the answer is wrong");
            }
            Obey(call, forget);
        } else {
            throw std::runtime_error("this case is not measured here");
        }
    };
    std::visit(run, workload.request);
}

}  // namespace bench
