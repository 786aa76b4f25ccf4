// SPDX-License-Identifier: Apache-2.0
// Cap'n Proto RPC over a Unix socket, the way its documentation starts: one event loop on each side.
#include <capnp/ez-rpc.h>

#include <string>

#include "bench.capnp.h"
#include "bench/harness.h"

namespace bench {
namespace {

capnp::uint CountOf(size_t size)
{
    return static_cast<capnp::uint>(size);
}

template <class Texts>
void Fill(capnp::List<capnp::Text>::Builder list, const Texts& texts)
{
    capnp::uint index = 0;
    for (const std::string& text : texts) {
        list.set(index++, text);
    }
}
void Fill(wire::Info::Builder to, const Info& info)
{
    to.setBundleName(info.bundleName);
    to.setUid(info.uid);
    to.setPermissionGroup(info.permissionGroup);
    to.setCheckedState(info.checkedState);
    Fill(to.initShownStates(CountOf(info.shownStates.size())), info.shownStates);
    Fill(to.initDisabledStates(CountOf(info.disabledStates.size())), info.disabledStates);
    to.setDisabledReason(info.disabledReason);
    to.setFlags(info.flags);
}

template <class Texts>
void Read(capnp::List<capnp::Text>::Reader from, Texts& texts)
{
    texts.reserve(from.size());
    for (const auto text : from) {
        texts.insert(texts.end(), std::string(text));
    }
}
void Read(wire::Info::Reader from, Info& info)
{
    info.bundleName = from.getBundleName();
    info.uid = from.getUid();
    info.permissionGroup = from.getPermissionGroup();
    info.checkedState = from.getCheckedState();
    Read(from.getShownStates(), info.shownStates);
    Read(from.getDisabledStates(), info.disabledStates);
    info.disabledReason = from.getDisabledReason();
    info.flags = from.getFlags();
}

class Peer {
public:
    explicit Peer(const Workload& workload)
        : client_("unix:" + workload.SocketPath()), service_(client_.getMain<wire::Service>())
    {
    }

    auto Ask(const InfoRequest& request)
    {
        const auto& [name, userId, interested] = request.arguments;
        auto call = service_.infoRequest();
        call.setName(name);
        call.setUserId(userId);
        Fill(call.initInterested(CountOf(interested.size())), interested);
        const auto reply = call.send().wait(client_.getWaitScope());
        const auto records = reply.getAnswer();
        std::vector<Info> infos(records.size());
        for (capnp::uint index = 0; index < records.size(); ++index) {
            Read(records[index], infos[index]);
        }
        return infos;
    }
    bool Ask(const SetRequest& request)
    {
        const auto& [bundleName, uid, permissionGroup, state, mask, value] = request.arguments;
        auto call = service_.setRequest();
        call.setBundleName(bundleName);
        call.setUid(uid);
        call.setPermissionGroup(permissionGroup);
        call.setCheckedState(state);
        call.setFlagsMask(mask);
        call.setFlagsValue(value);
        return call.send().wait(client_.getWaitScope()).getAnswer();
    }

private:
    capnp::EzRpcClient client_;
    wire::Service::Client service_;
};

class Service final : public wire::Service::Server {
public:
    explicit Service(const Workload& workload) : answers_(MakeAnswers(workload)) {}

protected:
    kj::Promise<void> info(InfoContext context) override
    {
        const auto from = context.getParams();
        InfoRequest request{{{from.getName(), from.getUserId(), {}}}};
        Read(from.getInterested(), std::get<2>(request.arguments));
        const auto& infos = std::get<std::vector<Info>>(answers_);
        auto records = context.getResults().initAnswer(CountOf(infos.size()));
        for (capnp::uint index = 0; index < records.size(); ++index) {
            Fill(records[index], infos[index]);
        }
        return kj::READY_NOW;
    }
    kj::Promise<void> set(SetContext context) override
    {
        const auto from = context.getParams();
        const SetRequest request{{{from.getBundleName(), from.getUid(), from.getPermissionGroup(),
                                   from.getCheckedState(), from.getFlagsMask(), from.getFlagsValue()}}};
        context.getResults().setAnswer(std::get<bool>(answers_));
        return kj::READY_NOW;
    }

private:
    const Answers answers_;
};

}  // namespace

void Serve(const Workload& workload)
{
    capnp::EzRpcServer server(kj::heap<Service>(workload), "unix:" + workload.SocketPath());
    server.getPort().wait(server.getWaitScope());
    AnnounceReady();
    kj::NEVER_DONE.wait(server.getWaitScope());
}

void Connect(const Workload& workload)
{
    RunClient<Peer, InfoRequest, SetRequest>(workload);
}

}  // namespace bench
