// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <unordered_set>
#include <variant>
#include <vector>

// What the benchmarks send around: tuples with the fields of the library's records, in their order, so that a contender
// carries, copies and compares them all with one loop.
namespace bench {

// Bundle name of 22 characters, uid, permission group of 25, checked state of 5, three shown states, one disabled
// state, reason, flags.
using Info = std::tuple<std::string, int32_t, std::string, std::string, std::vector<std::string>,
                        std::unordered_set<std::string>, std::string, int64_t>;
// Bundle name, uid, operation group, times, operation mode, app state, screen state, begin, end.
using Usage = std::tuple<std::string, int32_t, std::string, int32_t, int32_t, int32_t, int32_t, int64_t, int64_t>;
// Bundle name, fingerprint of 64 characters, version code, policy value.
using Row = std::tuple<std::string, std::string, int64_t, int64_t>;

// One request: the number of its operation, the type of what comes back, and the arguments as they travel.
template <uint32_t Operation, class Reply, class... Arguments>
struct Request {
    using Answer = Reply;
    static constexpr uint32_t kOperation = Operation;

    std::tuple<Arguments...> arguments;
};

// By app: a bundle, the user, groups of interest. By permission: a group, the user, bundles of interest.
struct InfoRequest : Request<0, std::vector<Info>, std::string, int32_t, std::unordered_set<std::string>> {
    bool isByPermission = false;  // which operation of the library's; does not travel
};
// Bundle, uid, group, state, mask and value of the flags.
struct SetRequest : Request<1, bool, std::string, int32_t, std::string, std::string, int64_t, int64_t> {};
// Bundles, users, groups, begin, end, limit, order.
struct UsageRequest : Request<2, std::vector<Usage>, std::vector<std::string>, std::vector<int32_t>,
                              std::vector<std::string>, int64_t, int64_t, int32_t, int32_t> {};
// Policy, bundles.
struct RowRequest : Request<3, std::vector<Row>, std::string, std::vector<std::string>> {};

using AnyRequest = std::variant<InfoRequest, SetRequest, UsageRequest, RowRequest>;

// The request of a case: one of the five that are measured, or `none`, which has empty fields and brings nothing back.
// Throws for another name.
AnyRequest MakeRequest(const std::string& name);

// One case as the command line gives it.
struct Workload {
    std::string directory;  // where both sides keep their sockets; the two of them have it to themselves
    AnyRequest request;
    size_t records = 0;       // how many records come back
    size_t requestBytes = 0;  // for the contender without a codec: the length of its messages
    size_t replyBytes = 0;

    // Ours names its socket itself.
    std::string SocketPath() const { return directory + "/bench.sock"; }
};

// What the server of a workload answers to each request; empty for those that the workload does not have. Record
// `index` holds the same values in every contender, so that an answer can be checked without a copy of it.
using Answers = std::tuple<std::vector<Info>, bool, std::vector<Usage>, std::vector<Row>>;
Answers MakeAnswers(const Workload& workload);

// The fields of a record that an answer brought: the record itself, unless a contender says otherwise.
template <class Record>
decltype(auto) FieldsOf(Record& record)
{
    return (record);
}

}  // namespace bench
