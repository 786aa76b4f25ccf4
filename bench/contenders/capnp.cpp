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
template <class Texts>
Texts ToTexts(capnp::List<capnp::Text>::Reader from)
{
    Texts texts;
    texts.reserve(from.size());
    for (const auto text : from) {
        texts.insert(texts.end(), std::string(text));
    }
    return texts;
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
        std::vector<Info> infos;
        infos.reserve(reply.getAnswer().size());
        for (const auto info : reply.getAnswer()) {
            infos.emplace_back(info.getBundleName(), info.getUid(), info.getPermissionGroup(), info.getCheckedState(),
                               ToTexts<std::vector<std::string>>(info.getShownStates()),
                               ToTexts<std::unordered_set<std::string>>(info.getDisabledStates()),
                               info.getDisabledReason(), info.getFlags());
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
        const InfoRequest request{
            {{from.getName(), from.getUserId(), ToTexts<std::unordered_set<std::string>>(from.getInterested())}}};
        const auto& infos = std::get<std::vector<Info>>(answers_);
        auto records = context.getResults().initAnswer(CountOf(infos.size()));
        capnp::uint index = 0;
        for (const auto& [bundleName, uid, group, state, shownStates, disabledStates, reason, flags] : infos) {
            auto record = records[index++];
            record.setBundleName(bundleName);
            record.setUid(uid);
            record.setPermissionGroup(group);
            record.setCheckedState(state);
            Fill(record.initShownStates(CountOf(shownStates.size())), shownStates);
            Fill(record.initDisabledStates(CountOf(disabledStates.size())), disabledStates);
            record.setDisabledReason(reason);
            record.setFlags(flags);
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
