// SPDX-License-Identifier: Apache-2.0
// Cap'n Proto RPC over a Unix socket, the way its documentation starts: one event loop on each side.
#include <capnp/ez-rpc.h>

#include <string>

#include "bench.capnp.h"
#include "bench/contenders/unix_socket.h"
#include "bench/typed_client.h"

namespace bench {
namespace {

capnp::uint CountOf(size_t size)
{
    return static_cast<capnp::uint>(size);
}

template <class List, class Values>
void FillList(List list, const Values& values)
{
    capnp::uint index = 0;
    for (const auto& value : values) {
        list.set(index++, value);
    }
}

// What a generated reader gives, as a field of a record.
template <class T>
void Read(T from, T& to)
{
    to = from;
}
void Read(capnp::Text::Reader from, std::string& to)
{
    to.assign(from.cStr(), from.size());
}
void Read(capnp::List<capnp::Text>::Reader from, std::vector<std::string>& to)
{
    to.reserve(from.size());
    for (const auto text : from) {
        to.emplace_back(text.cStr(), text.size());
    }
}
void Read(capnp::List<capnp::Text>::Reader from, std::unordered_set<std::string>& to)
{
    for (const auto text : from) {
        to.emplace(text.cStr(), text.size());
    }
}
void Read(capnp::List<int32_t>::Reader from, std::vector<int32_t>& to)
{
    for (const int32_t number : from) {
        to.push_back(number);
    }
}

// One list of fields for both directions: `wire` is a generated builder when `record` is const, else a reader.
#define CARRY(Name, field)                    \
    if constexpr (std::is_const_v<Record>) {  \
        wire.set##Name(record.field);         \
    } else {                                  \
        Read(wire.get##Name(), record.field); \
    }
#define CARRY_LIST(Name, field)                                                \
    if constexpr (std::is_const_v<Record>) {                                   \
        FillList(wire.init##Name(CountOf(record.field.size())), record.field); \
    } else {                                                                   \
        Read(wire.get##Name(), record.field);                                  \
    }

template <class T, class Record>
constexpr bool kIs = std::is_same_v<std::remove_const_t<Record>, T>;

template <class Wire, class Record>
void Carry(Wire wire, Record& record)
{
    if constexpr (kIs<Info, Record>) {
        CARRY(BundleName, bundleName)
        CARRY(Uid, uid)
        CARRY(PermissionGroup, permissionGroup)
        CARRY(CheckedState, checkedState)
        CARRY_LIST(ShownStates, shownStates)
        CARRY_LIST(DisabledStates, disabledStates)
        CARRY(DisabledReason, disabledReason)
        CARRY(Flags, flags)
    } else if constexpr (kIs<Usage, Record>) {
        CARRY(BundleName, bundleName)
        CARRY(Uid, uid)
        CARRY(OperationGroup, operationGroup)
        CARRY(Times, times)
        CARRY(OperationMode, operationMode)
        CARRY(AppState, appState)
        CARRY(ScreenState, screenState)
        CARRY(BeginTimestamp, beginTimestamp)
        CARRY(EndTimestamp, endTimestamp)
    } else if constexpr (kIs<Row, Record>) {
        CARRY(BundleName, bundleName)
        CARRY(Fingerprint, fingerprint)
        CARRY(VersionCode, versionCode)
        CARRY(PolicyValue, policyValue)
    } else if constexpr (kIs<InfoRequest, Record>) {
        CARRY(Name, name)
        CARRY(UserId, userId)
        CARRY_LIST(Interested, interested)
    } else if constexpr (kIs<SetRequest, Record>) {
        CARRY(BundleName, bundleName)
        CARRY(Uid, uid)
        CARRY(PermissionGroup, permissionGroup)
        CARRY(CheckedState, checkedState)
        CARRY(FlagsMask, flagsMask)
        CARRY(FlagsValue, flagsValue)
    } else if constexpr (kIs<UsageRequest, Record>) {
        CARRY_LIST(BundleNames, bundleNames)
        CARRY_LIST(UserIds, userIds)
        CARRY_LIST(OperationGroups, operationGroups)
        CARRY(BeginTimestamp, beginTimestamp)
        CARRY(EndTimestamp, endTimestamp)
        CARRY(Limit, limit)
        CARRY(Order, order)
    } else {
        static_assert(kIs<RowRequest, Record>);
        CARRY(PolicyName, policyName)
        CARRY_LIST(BundleNames, bundleNames)
    }
}

class CapnpPeer {
public:
    explicit CapnpPeer(const std::string& directory)
        : client_("unix:" + SocketPath(directory)), service_(client_.getMain<wire::Service>())
    {
    }

    auto Ask(const InfoRequest& request) { return Send(service_.infoRequest(), request); }
    auto Ask(const SetRequest& request) { return Send(service_.setRequest(), request); }
    auto Ask(const UsageRequest& request) { return Send(service_.usageRequest(), request); }
    auto Ask(const RowRequest& request) { return Send(service_.rowRequest(), request); }

private:
    template <class Call, class Request>
    typename Request::Answer Send(Call call, const Request& request)
    {
        Carry<typename Call::Builder>(call, request);
        const auto reply = call.send().wait(client_.getWaitScope());
        if constexpr (std::is_same_v<typename Request::Answer, bool>) {
            return reply.getAnswer();
        } else {
            const auto records = reply.getAnswer();
            typename Request::Answer answer(records.size());
            for (capnp::uint index = 0; index < records.size(); ++index) {
                Carry(records[index], answer[index]);
            }
            return answer;
        }
    }

    capnp::EzRpcClient client_;
    wire::Service::Client service_;
};

class Service final : public wire::Service::Server {
public:
    explicit Service(const Workload& workload) : answers_(workload) {}

protected:
    kj::Promise<void> info(InfoContext context) override { return Answer<InfoRequest>(context, answers_.infos); }
    kj::Promise<void> set(SetContext context) override { return Answer<SetRequest>(context, answers_.isSet); }
    kj::Promise<void> usage(UsageContext context) override { return Answer<UsageRequest>(context, answers_.usages); }
    kj::Promise<void> row(RowContext context) override { return Answer<RowRequest>(context, answers_.rows); }

private:
    template <class Request, class Context, class Kept>
    static kj::Promise<void> Answer(Context& context, const Kept& kept)
    {
        Request request;
        Carry(context.getParams(), request);
        if constexpr (std::is_same_v<Kept, bool>) {
            context.getResults().setAnswer(kept);
        } else {
            auto records = context.getResults().initAnswer(CountOf(kept.size()));
            for (capnp::uint index = 0; index < records.size(); ++index) {
                Carry(records[index], kept[index]);
            }
        }
        return kj::READY_NOW;
    }

    const Answers answers_;
};

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    capnp::EzRpcServer server(kj::heap<Service>(workload), "unix:" + SocketPath(directory));
    server.getPort().wait(server.getWaitScope());
    AnnounceReady();
    kj::NEVER_DONE.wait(server.getWaitScope());
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return MakeClient<CapnpPeer>(directory, workload);
}

}  // namespace bench
