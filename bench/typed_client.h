// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <string>
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

// The client of a contender whose `Peer` carries records. A `Peer` is made from the directory. Its `Ask(request,
// answer)` fills the answer, an empty list of its types `InfoType`, `UsageType` or `RowType`, or a bool, and throws
// when the request fails.
template <class Peer>
class TypedClient final : public Client {
public:
    TypedClient(const std::string& directory, const Workload& workload)
        : workload_(workload),
          peer_(directory),
          infoRequest_(workload.kind == Case::kSmall  ? MakeByAppRequest()
                       : workload.kind == Case::kBulk ? MakeByPermissionRequest()
                                                      : InfoRequest()),
          rowRequest_(MakeRowRequest(workload.records))
    {
    }

    // Said, because the destructor of a peer may say that it throws.
    ~TypedClient() noexcept override = default;

    // Every answer goes into a new list, as in a program that calls once.
    void Call() override
    {
        Forget();
        switch (workload_.kind) {
            case Case::kSmall:
            case Case::kBulk:
            case Case::kNone:
                return peer_.Ask(infoRequest_, infos_);
            case Case::kLeast:
                return peer_.Ask(setRequest_, isSet_);
            case Case::kUsage:
                return peer_.Ask(usageRequest_, usages_);
            case Case::kToken:
                return peer_.Ask(rowRequest_, rows_);
        }
    }

    void Forget() override
    {
        // Not `= {}`, which keeps the memory.
        infos_ = decltype(infos_)();
        usages_ = decltype(usages_)();
        rows_ = decltype(rows_)();
        isSet_ = false;
    }

    bool IsAnswerRight() const override
    {
        const Answers right(workload_);
        return isSet_ == (workload_.kind == Case::kLeast) && AreSame(infos_, right.infos) &&
               AreSame(usages_, right.usages) && AreSame(rows_, right.rows);
    }

private:
    template <class T, class Plain>
    static bool AreSame(const std::vector<T>& records, const std::vector<Plain>& right)
    {
        return std::equal(
            records.begin(), records.end(), right.begin(), right.end(),
            [](const T& left, const Plain& plain) { return FieldsOf<Plain>(left) == Plain::Fields(plain); });
    }

    const Workload workload_;
    Peer peer_;
    const InfoRequest infoRequest_;
    const SetRequest setRequest_ = MakeSetRequest();
    const UsageRequest usageRequest_ = MakeUsageRequest();
    const RowRequest rowRequest_;

    std::vector<typename Peer::InfoType> infos_;
    std::vector<typename Peer::UsageType> usages_;
    std::vector<typename Peer::RowType> rows_;
    bool isSet_ = false;
};

// What a `Peer` that brings the plain structs derives from.
struct PlainTypes {
    using InfoType = Info;
    using UsageType = Usage;
    using RowType = Row;
};

}  // namespace bench
