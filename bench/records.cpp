// SPDX-License-Identifier: Apache-2.0
#include "bench/records.h"

#include <map>
#include <type_traits>

namespace bench {
namespace {

constexpr size_t kInterested = 5;
constexpr size_t kRows = 100;
constexpr size_t kGroups = 8;
constexpr int32_t kFirstUid = 20010000;
constexpr int64_t kFirstTimestamp = 1700000000000;
constexpr int64_t kPeriod = 60000;

std::string Digits(size_t number, size_t width)
{
    const std::string digits = std::to_string(number);
    return std::string(width - digits.size(), '0') + digits;
}

std::string BundleName(size_t index)
{
    return "com.example.app" + Digits(index, 7);
}

std::string Group(size_t index)
{
    return "permission.group." + Digits(index % kGroups, 8);
}

// `name` of the first indexes.
template <class Names>
Names Several(size_t count, std::string (*name)(size_t))
{
    Names names;
    for (size_t index = 0; index < count; ++index) {
        names.insert(names.end(), name(index));
    }
    return names;
}

void Make(size_t index, Info& info)
{
    info = {BundleName(index),
            kFirstUid + static_cast<int32_t>(index),
            Group(index),
            "allow",
            {"allow", "block", "query"},
            {"query"},
            "managed",
            -static_cast<int64_t>(index)};
}

void Make(size_t index, Usage& usage)
{
    const int64_t begin = kFirstTimestamp + kPeriod * static_cast<int64_t>(index);
    usage = {BundleName(index),
             kFirstUid + static_cast<int32_t>(index),
             Group(index),
             static_cast<int32_t>(index % 100) + 1,
             1,
             2,
             3,
             begin,
             begin + kPeriod};
}

void Make(size_t index, Row& row)
{
    row = {BundleName(index), Digits(index, 64), 1000000 + static_cast<int64_t>(index), -7};
}

}  // namespace

AnyRequest MakeRequest(const std::string& name)
{
    using Set = std::unordered_set<std::string>;
    using List = std::vector<std::string>;
    const std::map<std::string, AnyRequest> requests = {
        {"small", InfoRequest{{{BundleName(1), 100, Several<Set>(kInterested, Group)}}, false}},
        {"bulk", InfoRequest{{{Group(1), 100, Several<Set>(kInterested, BundleName)}}, true}},
        {"least", SetRequest{{{BundleName(1), kFirstUid, Group(1), "block", 255, 3}}}},
        {"usage", UsageRequest{{{List{BundleName(1), BundleName(2)}, std::vector<int32_t>{100}, List{Group(1)},
                                 kFirstTimestamp, kFirstTimestamp * 2, 10000, 1}}}},
        {"token", RowRequest{{{"camera", Several<List>(kRows, BundleName)}}}},
        {"none", InfoRequest()},
    };
    return requests.at(name);
}

Answers MakeAnswers(const Workload& workload)
{
    Answers answers;
    const auto make = [&](const auto& request) {
        auto& answer = std::get<typename std::decay_t<decltype(request)>::Answer>(answers);
        if constexpr (std::is_same_v<decltype(answer), bool&>) {
            answer = true;
        } else {
            answer.resize(workload.records);
            for (size_t index = 0; index < answer.size(); ++index) {
                Make(index, answer[index]);
            }
        }
    };
    std::visit(make, workload.request);
    return answers;
}

}  // namespace bench
