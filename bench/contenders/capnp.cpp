// SPDX-License-Identifier: Apache-2.0
// Cap'n Proto RPC over a Unix socket, the way its documentation starts: one event loop on each side.
#include <capnp/ez-rpc.h>

#include <stdexcept>
#include <string>

#include "bench.capnp.h"
#include "bench/contenders/unix_socket.h"
#include "bench/typed_client.h"

namespace bench {
namespace {

template <class Texts>
void FillTexts(capnp::List<capnp::Text>::Builder builder, const Texts& texts)
{
    capnp::uint index = 0;
    for (const std::string& text : texts) {
        builder.set(index++, text);
    }
}

std::string TextOf(capnp::Text::Reader text)
{
    return {text.cStr(), text.size()};
}

void ReadTexts(capnp::List<capnp::Text>::Reader reader, std::vector<std::string>& texts)
{
    texts.reserve(reader.size());
    for (const auto text : reader) {
        texts.push_back(TextOf(text));
    }
}

void ReadTexts(capnp::List<capnp::Text>::Reader reader, std::unordered_set<std::string>& texts)
{
    for (const auto text : reader) {
        texts.insert(TextOf(text));
    }
}

capnp::uint CountOf(size_t size)
{
    return static_cast<capnp::uint>(size);
}

void Fill(wire::Info::Builder builder, const Info& info)
{
    builder.setBundleName(info.bundleName);
    builder.setUid(info.uid);
    builder.setPermissionGroup(info.permissionGroup);
    builder.setCheckedState(info.checkedState);
    FillTexts(builder.initShownStates(CountOf(info.shownStates.size())), info.shownStates);
    FillTexts(builder.initDisabledStates(CountOf(info.disabledStates.size())), info.disabledStates);
    builder.setDisabledReason(info.disabledReason);
    builder.setFlags(info.flags);
}

void Read(wire::Info::Reader reader, Info& info)
{
    info.bundleName = TextOf(reader.getBundleName());
    info.uid = reader.getUid();
    info.permissionGroup = TextOf(reader.getPermissionGroup());
    info.checkedState = TextOf(reader.getCheckedState());
    ReadTexts(reader.getShownStates(), info.shownStates);
    ReadTexts(reader.getDisabledStates(), info.disabledStates);
    info.disabledReason = TextOf(reader.getDisabledReason());
    info.flags = reader.getFlags();
}

void Fill(wire::Usage::Builder builder, const Usage& usage)
{
    builder.setBundleName(usage.bundleName);
    builder.setUid(usage.uid);
    builder.setOperationGroup(usage.operationGroup);
    builder.setTimes(usage.times);
    builder.setOperationMode(usage.operationMode);
    builder.setAppState(usage.appState);
    builder.setScreenState(usage.screenState);
    builder.setBeginTimestamp(usage.beginTimestamp);
    builder.setEndTimestamp(usage.endTimestamp);
}

void Read(wire::Usage::Reader reader, Usage& usage)
{
    usage.bundleName = TextOf(reader.getBundleName());
    usage.uid = reader.getUid();
    usage.operationGroup = TextOf(reader.getOperationGroup());
    usage.times = reader.getTimes();
    usage.operationMode = reader.getOperationMode();
    usage.appState = reader.getAppState();
    usage.screenState = reader.getScreenState();
    usage.beginTimestamp = reader.getBeginTimestamp();
    usage.endTimestamp = reader.getEndTimestamp();
}

void Fill(wire::Row::Builder builder, const Row& row)
{
    builder.setBundleName(row.bundleName);
    builder.setFingerprint(row.fingerprint);
    builder.setVersionCode(row.versionCode);
    builder.setPolicyValue(row.policyValue);
}

void Read(wire::Row::Reader reader, Row& row)
{
    row.bundleName = TextOf(reader.getBundleName());
    row.fingerprint = TextOf(reader.getFingerprint());
    row.versionCode = reader.getVersionCode();
    row.policyValue = reader.getPolicyValue();
}

template <class Builder, class Record>
void FillMany(Builder builder, const std::vector<Record>& records)
{
    for (capnp::uint index = 0; index < builder.size(); ++index) {
        Fill(builder[index], records[index]);
    }
}

template <class Reader, class Record>
void ReadMany(Reader reader, std::vector<Record>& records)
{
    records.resize(reader.size());
    for (capnp::uint index = 0; index < reader.size(); ++index) {
        Read(reader[index], records[index]);
    }
}

class CapnpPeer : public PlainTypes {
public:
    explicit CapnpPeer(const std::string& directory)
        : client_("unix:" + SocketPath(directory)), service_(client_.getMain<wire::Service>())
    {
    }

    void ByApp(const InfoRequest& request, std::vector<Info>& infos)
    {
        SendInfoRequest(service_.byAppRequest(), request, infos);
    }
    void ByPermission(const InfoRequest& request, std::vector<Info>& infos)
    {
        SendInfoRequest(service_.byPermissionRequest(), request, infos);
    }
    bool SetCheckedState(const SetRequest& request)
    {
        auto call = service_.setCheckedStateRequest();
        call.setBundleName(request.bundleName);
        call.setUid(request.uid);
        call.setPermissionGroup(request.permissionGroup);
        call.setCheckedState(request.checkedState);
        call.setFlagsMask(request.flagsMask);
        call.setFlagsValue(request.flagsValue);
        return call.send().wait(client_.getWaitScope()).getIsSet();
    }
    void Timeline(const UsageRequest& request, std::vector<Usage>& usages)
    {
        auto call = service_.timelineRequest();
        FillTexts(call.initBundleNames(CountOf(request.bundleNames.size())), request.bundleNames);
        auto userIds = call.initUserIds(CountOf(request.userIds.size()));
        for (capnp::uint index = 0; index < userIds.size(); ++index) {
            userIds.set(index, request.userIds[index]);
        }
        FillTexts(call.initOperationGroups(CountOf(request.operationGroups.size())), request.operationGroups);
        call.setBeginTimestamp(request.beginTimestamp);
        call.setEndTimestamp(request.endTimestamp);
        call.setLimit(request.limit);
        call.setOrder(request.order);
        const auto reply = call.send().wait(client_.getWaitScope());
        ReadMany(reply.getUsages(), usages);
    }
    void GetPolicy(const RowRequest& request, std::vector<Row>& rows)
    {
        auto call = service_.getPolicyRequest();
        call.setPolicyName(request.policyName);
        FillTexts(call.initBundleNames(CountOf(request.bundleNames.size())), request.bundleNames);
        const auto reply = call.send().wait(client_.getWaitScope());
        ReadMany(reply.getRows(), rows);
    }

private:
    template <class Call>
    void SendInfoRequest(Call call, const InfoRequest& request, std::vector<Info>& infos)
    {
        call.setName(request.name);
        call.setUserId(request.userId);
        FillTexts(call.initInterested(CountOf(request.interested.size())), request.interested);
        const auto reply = call.send().wait(client_.getWaitScope());
        ReadMany(reply.getInfos(), infos);
    }

    capnp::EzRpcClient client_;
    wire::Service::Client service_;
};

class Service final : public wire::Service::Server {
public:
    explicit Service(const Workload& workload) : answers_(workload) {}

protected:
    kj::Promise<void> byApp(ByAppContext context) override { return AnswerInfos(context); }
    kj::Promise<void> byPermission(ByPermissionContext context) override { return AnswerInfos(context); }
    kj::Promise<void> setCheckedState(SetCheckedStateContext context) override
    {
        const auto params = context.getParams();
        SetRequest request{TextOf(params.getBundleName()),   params.getUid(),       TextOf(params.getPermissionGroup()),
                           TextOf(params.getCheckedState()), params.getFlagsMask(), params.getFlagsValue()};
        context.getResults().setIsSet(true);
        return kj::READY_NOW;
    }
    kj::Promise<void> timeline(TimelineContext context) override
    {
        const auto params = context.getParams();
        UsageRequest request;
        ReadTexts(params.getBundleNames(), request.bundleNames);
        for (const int32_t userId : params.getUserIds()) {
            request.userIds.push_back(userId);
        }
        ReadTexts(params.getOperationGroups(), request.operationGroups);
        request.beginTimestamp = params.getBeginTimestamp();
        request.endTimestamp = params.getEndTimestamp();
        request.limit = params.getLimit();
        request.order = params.getOrder();
        FillMany(context.getResults().initUsages(CountOf(answers_.usages.size())), answers_.usages);
        return kj::READY_NOW;
    }
    kj::Promise<void> getPolicy(GetPolicyContext context) override
    {
        const auto params = context.getParams();
        RowRequest request{TextOf(params.getPolicyName()), {}};
        ReadTexts(params.getBundleNames(), request.bundleNames);
        FillMany(context.getResults().initRows(CountOf(answers_.rows.size())), answers_.rows);
        return kj::READY_NOW;
    }

private:
    template <class Context>
    kj::Promise<void> AnswerInfos(Context& context)
    {
        const auto params = context.getParams();
        InfoRequest request{TextOf(params.getName()), params.getUserId(), {}};
        ReadTexts(params.getInterested(), request.interested);
        FillMany(context.getResults().initInfos(CountOf(answers_.infos.size())), answers_.infos);
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
    return std::make_unique<TypedClient<CapnpPeer>>(directory, workload);
}

}  // namespace bench
