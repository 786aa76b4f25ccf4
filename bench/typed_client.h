// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "bench/harness.h"
#include "bench/records.h"

namespace bench {

// The answers that the server of a workload gives.
struct Answers {
    explicit Answers(const Workload& workload)
        : infos(MakeMany<Info>(workload.kind == Case::kSmall || workload.kind == Case::kBulk ? workload.records : 0)),
          usages(MakeMany<Usage>(workload.kind == Case::kUsage ? workload.records : 0)),
          rows(MakeMany<Row>(workload.kind == Case::kToken ? workload.records : 0))
    {
    }

    const std::vector<Info> infos;
    const std::vector<Usage> usages;
    const std::vector<Row> rows;
    const bool isSet = true;
};

// The client of a contender whose `Peer` carries records. A `Peer` is made from the directory. Its `Ask(request)`
// returns the answer, a list of records or a bool, and throws when the request fails.
template <class Peer, class Request>
class TypedClient final : public Client {
public:
    TypedClient(const std::string& directory, size_t records, Request request)
        : peer_(directory), records_(records), request_(std::move(request))
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
            using Plain = typename Request::Answer::value_type;
            const std::vector<Plain> right = MakeMany<Plain>(records_);
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

template <class Peer>
std::unique_ptr<Client> MakeClient(const std::string& directory, const Workload& workload)
{
    const auto make = [&](auto request) {
        return std::unique_ptr<Client>(
            new TypedClient<Peer, decltype(request)>(directory, workload.records, std::move(request)));
    };
    switch (workload.kind) {
        case Case::kSmall:
            return make(MakeByAppRequest());
        case Case::kBulk:
            return make(MakeByPermissionRequest());
        case Case::kLeast:
            return make(MakeSetRequest());
        case Case::kUsage:
            return make(MakeUsageRequest());
        case Case::kToken:
            return make(MakeRowRequest(workload.records));
        case Case::kNone:
            break;
    }
    return make(InfoRequest());
}

}  // namespace bench
