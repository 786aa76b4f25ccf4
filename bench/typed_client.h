// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "bench/contender.h"
#include "bench/records.h"

namespace bench {

// The answers that the server of a workload gives.
struct Answers {
    explicit Answers(const Workload& workload)
        : infos(MakeInfos(workload.kind == Case::kSmall || workload.kind == Case::kBulk ? workload.records : 0)),
          usages(MakeUsages(workload.kind == Case::kUsage ? workload.records : 0)),
          rows(MakeRows(workload.kind == Case::kToken ? workload.records : 0))
    {
    }

    const std::vector<Info> infos;
    const std::vector<Usage> usages;
    const std::vector<Row> rows;
};

template <class T>
bool IsSameInfo(const T& left, const Info& right)
{
    return left.bundleName == right.bundleName && left.uid == right.uid &&
           left.permissionGroup == right.permissionGroup && left.checkedState == right.checkedState &&
           left.shownStates == right.shownStates && left.disabledStates == right.disabledStates &&
           left.disabledReason == right.disabledReason && left.flags == right.flags;
}

inline bool IsSameUsage(const Usage& left, const Usage& right)
{
    return left.bundleName == right.bundleName && left.uid == right.uid &&
           left.operationGroup == right.operationGroup && left.times == right.times &&
           left.operationMode == right.operationMode && left.appState == right.appState &&
           left.screenState == right.screenState && left.beginTimestamp == right.beginTimestamp &&
           left.endTimestamp == right.endTimestamp;
}

template <class T>
bool IsSameRow(const T& left, const Row& right)
{
    return left.bundleName == right.bundleName && left.fingerprint == right.fingerprint &&
           left.versionCode == right.versionCode && left.policyValue == right.policyValue;
}

// The client of a contender whose `Peer` carries records. A `Peer` is made from the directory and has an operation for
// each request, which throws when it fails; its types `Info`, `Usage` and `Row` are what it brings them in, and
// `ToPlain` turns its usage record into ours.
template <class Peer>
class TypedClient final : public Client {
public:
    TypedClient(const std::string& directory, const Workload& workload)
        : workload_(workload), peer_(directory), rowRequest_(MakeRowRequest(workload.records))
    {
    }

    // Said, because the destructor of a peer may say that it throws.
    ~TypedClient() noexcept override = default;

    // Every answer goes into new vectors, as in a program that calls once.
    void Call() override
    {
        switch (workload_.kind) {
            case Case::kSmall:
                infos_ = {};
                return peer_.ByApp(byAppRequest_, infos_);
            case Case::kBulk:
                infos_ = {};
                return peer_.ByPermission(byPermissionRequest_, infos_);
            case Case::kLeast:
                isSet_ = peer_.SetCheckedState(setRequest_);
                return;
            case Case::kUsage:
                usages_ = {};
                return peer_.Timeline(usageRequest_, usages_);
            case Case::kToken:
                rows_ = {};
                return peer_.GetPolicy(rowRequest_, rows_);
            case Case::kNone:
                infos_ = {};
                return peer_.ByApp(emptyRequest_, infos_);
        }
    }

    bool IsAnswerRight() const override
    {
        switch (workload_.kind) {
            case Case::kSmall:
            case Case::kBulk:
                return AreRight(infos_,
                                [](const auto& info, size_t index) { return IsSameInfo(info, MakeInfo(index)); });
            case Case::kLeast:
                return isSet_;
            case Case::kUsage:
                return AreRight(usages_, [](const auto& usage, size_t index) {
                    return IsSameUsage(Peer::ToPlain(usage), MakeUsage(index));
                });
            case Case::kToken:
                return AreRight(rows_, [](const auto& row, size_t index) { return IsSameRow(row, MakeRow(index)); });
            case Case::kNone:
                return infos_.empty();
        }
        return false;
    }

private:
    template <class T, class IsSame>
    bool AreRight(const std::vector<T>& records, IsSame isSame) const
    {
        if (records.size() != workload_.records) {
            return false;
        }
        for (size_t index = 0; index < records.size(); ++index) {
            if (!isSame(records[index], index)) {
                return false;
            }
        }
        return true;
    }

    const Workload workload_;
    Peer peer_;
    const InfoRequest byAppRequest_ = MakeByAppRequest();
    const InfoRequest byPermissionRequest_ = MakeByPermissionRequest();
    const InfoRequest emptyRequest_;
    const SetRequest setRequest_ = MakeSetRequest();
    const UsageRequest usageRequest_ = MakeUsageRequest();
    const RowRequest rowRequest_;

    std::vector<typename Peer::Info> infos_;
    std::vector<typename Peer::Usage> usages_;
    std::vector<typename Peer::Row> rows_;
    bool isSet_ = false;
};

// What a `Peer` that brings the plain structs derives from.
struct PlainTypes {
    using Info = bench::Info;
    using Usage = bench::Usage;
    using Row = bench::Row;
    static const Usage& ToPlain(const Usage& usage) { return usage; }
};

}  // namespace bench
