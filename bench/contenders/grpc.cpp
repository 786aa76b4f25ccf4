// SPDX-License-Identifier: Apache-2.0
// gRPC over a Unix socket with its synchronous server and stub.
#include <grpcpp/grpcpp.h>

#include <stdexcept>
#include <string>

#include "bench.grpc.pb.h"
#include "bench/contenders/unix_socket.h"
#include "bench/typed_client.h"

namespace bench {
namespace {

constexpr int kNoLimit = -1;

template <class Field, class Texts>
void FillTexts(Field* field, const Texts& texts)
{
    field->Reserve(static_cast<int>(texts.size()));
    for (const std::string& text : texts) {
        *field->Add() = text;
    }
}

// The message is ours and read once, so that its texts may be moved out.
template <class Field>
void TakeTexts(Field* field, std::vector<std::string>& texts)
{
    texts.assign(std::make_move_iterator(field->begin()), std::make_move_iterator(field->end()));
}

template <class Field>
void TakeTexts(Field* field, std::unordered_set<std::string>& texts)
{
    texts.insert(std::make_move_iterator(field->begin()), std::make_move_iterator(field->end()));
}

void Fill(wire::Info& message, const Info& info)
{
    message.set_bundle_name(info.bundleName);
    message.set_uid(info.uid);
    message.set_permission_group(info.permissionGroup);
    message.set_checked_state(info.checkedState);
    FillTexts(message.mutable_shown_states(), info.shownStates);
    FillTexts(message.mutable_disabled_states(), info.disabledStates);
    message.set_disabled_reason(info.disabledReason);
    message.set_flags(info.flags);
}

void Take(wire::Info& message, Info& info)
{
    info.bundleName = std::move(*message.mutable_bundle_name());
    info.uid = message.uid();
    info.permissionGroup = std::move(*message.mutable_permission_group());
    info.checkedState = std::move(*message.mutable_checked_state());
    TakeTexts(message.mutable_shown_states(), info.shownStates);
    TakeTexts(message.mutable_disabled_states(), info.disabledStates);
    info.disabledReason = std::move(*message.mutable_disabled_reason());
    info.flags = message.flags();
}

void Fill(wire::Usage& message, const Usage& usage)
{
    message.set_bundle_name(usage.bundleName);
    message.set_uid(usage.uid);
    message.set_operation_group(usage.operationGroup);
    message.set_times(usage.times);
    message.set_operation_mode(usage.operationMode);
    message.set_app_state(usage.appState);
    message.set_screen_state(usage.screenState);
    message.set_begin_timestamp(usage.beginTimestamp);
    message.set_end_timestamp(usage.endTimestamp);
}

void Take(wire::Usage& message, Usage& usage)
{
    usage.bundleName = std::move(*message.mutable_bundle_name());
    usage.uid = message.uid();
    usage.operationGroup = std::move(*message.mutable_operation_group());
    usage.times = message.times();
    usage.operationMode = message.operation_mode();
    usage.appState = message.app_state();
    usage.screenState = message.screen_state();
    usage.beginTimestamp = message.begin_timestamp();
    usage.endTimestamp = message.end_timestamp();
}

void Fill(wire::Row& message, const Row& row)
{
    message.set_bundle_name(row.bundleName);
    message.set_fingerprint(row.fingerprint);
    message.set_version_code(row.versionCode);
    message.set_policy_value(row.policyValue);
}

void Take(wire::Row& message, Row& row)
{
    row.bundleName = std::move(*message.mutable_bundle_name());
    row.fingerprint = std::move(*message.mutable_fingerprint());
    row.versionCode = message.version_code();
    row.policyValue = message.policy_value();
}

template <class Field, class Record>
void FillMany(Field* field, const std::vector<Record>& records)
{
    field->Reserve(static_cast<int>(records.size()));
    for (const Record& record : records) {
        Fill(*field->Add(), record);
    }
}

template <class Field, class Record>
void TakeMany(Field* field, std::vector<Record>& records)
{
    records.resize(static_cast<size_t>(field->size()));
    size_t index = 0;
    for (auto& message : *field) {
        Take(message, records[index++]);
    }
}

grpc::ChannelArguments WithoutLimit()
{
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(kNoLimit);
    return arguments;
}

void Check(const grpc::Status& status)
{
    if (!status.ok()) {
        throw std::runtime_error(status.error_message());
    }
}

class GrpcPeer : public PlainTypes {
public:
    explicit GrpcPeer(const std::string& directory)
        : stub_(wire::Answering::NewStub(grpc::CreateCustomChannel("unix:" + SocketPath(directory),
                                                                   grpc::InsecureChannelCredentials(), WithoutLimit())))
    {
    }

    void ByApp(const InfoRequest& request, std::vector<Info>& infos)
    {
        Send(&wire::Answering::Stub::ByApp, request, infos);
    }
    void ByPermission(const InfoRequest& request, std::vector<Info>& infos)
    {
        Send(&wire::Answering::Stub::ByPermission, request, infos);
    }
    bool SetCheckedState(const SetRequest& request)
    {
        wire::SetRequest message;
        message.set_bundle_name(request.bundleName);
        message.set_uid(request.uid);
        message.set_permission_group(request.permissionGroup);
        message.set_checked_state(request.checkedState);
        message.set_flags_mask(request.flagsMask);
        message.set_flags_value(request.flagsValue);
        wire::SetReply reply;
        grpc::ClientContext context;
        Check(stub_->SetCheckedState(&context, message, &reply));
        return reply.is_set();
    }
    void Timeline(const UsageRequest& request, std::vector<Usage>& usages)
    {
        wire::UsageRequest message;
        FillTexts(message.mutable_bundle_names(), request.bundleNames);
        message.mutable_user_ids()->Add(request.userIds.begin(), request.userIds.end());
        FillTexts(message.mutable_operation_groups(), request.operationGroups);
        message.set_begin_timestamp(request.beginTimestamp);
        message.set_end_timestamp(request.endTimestamp);
        message.set_limit(request.limit);
        message.set_order(request.order);
        wire::UsageReply reply;
        grpc::ClientContext context;
        Check(stub_->Timeline(&context, message, &reply));
        TakeMany(reply.mutable_usages(), usages);
    }
    void GetPolicy(const RowRequest& request, std::vector<Row>& rows)
    {
        wire::RowRequest message;
        message.set_policy_name(request.policyName);
        FillTexts(message.mutable_bundle_names(), request.bundleNames);
        wire::RowReply reply;
        grpc::ClientContext context;
        Check(stub_->GetPolicy(&context, message, &reply));
        TakeMany(reply.mutable_rows(), rows);
    }

private:
    using InfoOperation = grpc::Status (wire::Answering::Stub::*)(grpc::ClientContext*, const wire::InfoRequest&,
                                                                  wire::InfoReply*);

    void Send(InfoOperation operation, const InfoRequest& request, std::vector<Info>& infos)
    {
        wire::InfoRequest message;
        message.set_name(request.name);
        message.set_user_id(request.userId);
        FillTexts(message.mutable_interested(), request.interested);
        wire::InfoReply reply;
        grpc::ClientContext context;
        Check((stub_.get()->*operation)(&context, message, &reply));
        TakeMany(reply.mutable_infos(), infos);
    }

    const std::unique_ptr<wire::Answering::Stub> stub_;
};

// The service reads its arguments where they are: a message already holds them as std::string.
class Service final : public wire::Answering::Service {
public:
    explicit Service(const Workload& workload) : answers_(workload) {}

    grpc::Status ByApp(grpc::ServerContext*, const wire::InfoRequest*, wire::InfoReply* reply) override
    {
        FillMany(reply->mutable_infos(), answers_.infos);
        return grpc::Status::OK;
    }
    grpc::Status ByPermission(grpc::ServerContext*, const wire::InfoRequest*, wire::InfoReply* reply) override
    {
        FillMany(reply->mutable_infos(), answers_.infos);
        return grpc::Status::OK;
    }
    grpc::Status SetCheckedState(grpc::ServerContext*, const wire::SetRequest*, wire::SetReply* reply) override
    {
        reply->set_is_set(true);
        return grpc::Status::OK;
    }
    grpc::Status Timeline(grpc::ServerContext*, const wire::UsageRequest*, wire::UsageReply* reply) override
    {
        FillMany(reply->mutable_usages(), answers_.usages);
        return grpc::Status::OK;
    }
    grpc::Status GetPolicy(grpc::ServerContext*, const wire::RowRequest*, wire::RowReply* reply) override
    {
        FillMany(reply->mutable_rows(), answers_.rows);
        return grpc::Status::OK;
    }

private:
    const Answers answers_;
};

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    Service service(workload);
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + SocketPath(directory), grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (server == nullptr) {
        throw std::runtime_error("the server does not start");
    }
    AnnounceReady();
    server->Wait();
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return std::make_unique<TypedClient<GrpcPeer>>(directory, workload);
}

}  // namespace bench
