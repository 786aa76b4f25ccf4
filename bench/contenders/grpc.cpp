// SPDX-License-Identifier: Apache-2.0
// gRPC over a Unix socket with its synchronous server and stub.
#include <grpcpp/grpcpp.h>

#include <iterator>
#include <stdexcept>
#include <string>

#include "bench.grpc.pb.h"
#include "bench/contenders/unix_socket.h"
#include "bench/typed_client.h"

namespace bench {
namespace {

constexpr int kNoLimit = -1;

template <class List, class Values>
void FillList(List* list, const Values& values)
{
    list->Reserve(static_cast<int>(values.size()));
    for (const auto& value : values) {
        *list->Add() = value;
    }
}
void FillList(google::protobuf::RepeatedField<int32_t>* list, const std::vector<int32_t>& values)
{
    list->Add(values.begin(), values.end());
}

// The message is ours and read once, so that its texts may be moved out.
template <class List, class Texts>
void TakeList(List* list, Texts& texts)
{
    texts = Texts(std::make_move_iterator(list->begin()), std::make_move_iterator(list->end()));
}

// One list of fields for both directions: into the message when `record` is const, else out of it.
#define CARRY(name, field)                   \
    if constexpr (std::is_const_v<Record>) { \
        message.set_##name(record.field);    \
    } else {                                 \
        record.field = message.name();       \
    }
#define CARRY_TEXT(name, field)                              \
    if constexpr (std::is_const_v<Record>) {                 \
        message.set_##name(record.field);                    \
    } else {                                                 \
        record.field = std::move(*message.mutable_##name()); \
    }
#define CARRY_LIST(name, field)                           \
    if constexpr (std::is_const_v<Record>) {              \
        FillList(message.mutable_##name(), record.field); \
    } else {                                              \
        TakeList(message.mutable_##name(), record.field); \
    }

template <class Record>
void Carry(wire::Info& message, Record& record)
{
    CARRY_TEXT(bundle_name, bundleName)
    CARRY(uid, uid)
    CARRY_TEXT(permission_group, permissionGroup)
    CARRY_TEXT(checked_state, checkedState)
    CARRY_LIST(shown_states, shownStates)
    CARRY_LIST(disabled_states, disabledStates)
    CARRY_TEXT(disabled_reason, disabledReason)
    CARRY(flags, flags)
}

template <class Record>
void Carry(wire::Usage& message, Record& record)
{
    CARRY_TEXT(bundle_name, bundleName)
    CARRY(uid, uid)
    CARRY_TEXT(operation_group, operationGroup)
    CARRY(times, times)
    CARRY(operation_mode, operationMode)
    CARRY(app_state, appState)
    CARRY(screen_state, screenState)
    CARRY(begin_timestamp, beginTimestamp)
    CARRY(end_timestamp, endTimestamp)
}

template <class Record>
void Carry(wire::Row& message, Record& record)
{
    CARRY_TEXT(bundle_name, bundleName)
    CARRY_TEXT(fingerprint, fingerprint)
    CARRY(version_code, versionCode)
    CARRY(policy_value, policyValue)
}

void Fill(wire::InfoRequest& message, const InfoRequest& request)
{
    message.set_name(request.name);
    message.set_user_id(request.userId);
    FillList(message.mutable_interested(), request.interested);
}

void Fill(wire::SetRequest& message, const SetRequest& request)
{
    message.set_bundle_name(request.bundleName);
    message.set_uid(request.uid);
    message.set_permission_group(request.permissionGroup);
    message.set_checked_state(request.checkedState);
    message.set_flags_mask(request.flagsMask);
    message.set_flags_value(request.flagsValue);
}

void Fill(wire::UsageRequest& message, const UsageRequest& request)
{
    FillList(message.mutable_bundle_names(), request.bundleNames);
    FillList(message.mutable_user_ids(), request.userIds);
    FillList(message.mutable_operation_groups(), request.operationGroups);
    message.set_begin_timestamp(request.beginTimestamp);
    message.set_end_timestamp(request.endTimestamp);
    message.set_limit(request.limit);
    message.set_order(request.order);
}

void Fill(wire::RowRequest& message, const RowRequest& request)
{
    message.set_policy_name(request.policyName);
    FillList(message.mutable_bundle_names(), request.bundleNames);
}

class GrpcPeer {
public:
    explicit GrpcPeer(const std::string& directory)
    {
        grpc::ChannelArguments withoutLimit;
        withoutLimit.SetMaxReceiveMessageSize(kNoLimit);
        stub_ = wire::Answering::NewStub(grpc::CreateCustomChannel("unix:" + SocketPath(directory),
                                                                   grpc::InsecureChannelCredentials(), withoutLimit));
    }

    auto Ask(const InfoRequest& request) { return Send(&wire::Answering::Stub::AskInfo, request); }
    auto Ask(const SetRequest& request) { return Send(&wire::Answering::Stub::AskSet, request); }
    auto Ask(const UsageRequest& request) { return Send(&wire::Answering::Stub::AskUsage, request); }
    auto Ask(const RowRequest& request) { return Send(&wire::Answering::Stub::AskRow, request); }

private:
    template <class Message, class Reply, class Request>
    typename Request::Answer Send(grpc::Status (wire::Answering::Stub::*operation)(grpc::ClientContext*, const Message&,
                                                                                   Reply*),
                                  const Request& request)
    {
        Message message;
        Fill(message, request);
        Reply reply;
        grpc::ClientContext context;
        const grpc::Status status = ((*stub_).*operation)(&context, message, &reply);
        if (!status.ok()) {
            throw std::runtime_error(status.error_message());
        }
        if constexpr (std::is_same_v<typename Request::Answer, bool>) {
            return reply.answer();
        } else {
            typename Request::Answer answer(static_cast<size_t>(reply.answer_size()));
            auto next = reply.mutable_answer()->begin();
            for (auto& record : answer) {
                Carry(*next++, record);
            }
            return answer;
        }
    }

    std::unique_ptr<wire::Answering::Stub> stub_;
};

// Does not copy the arguments: the message already holds them as std::string.
class Service final : public wire::Answering::Service {
public:
    explicit Service(const Workload& workload) : answers_(workload) {}

    grpc::Status AskInfo(grpc::ServerContext*, const wire::InfoRequest*, wire::InfoReply* reply) override
    {
        return Answer(answers_.infos, reply);
    }
    grpc::Status AskSet(grpc::ServerContext*, const wire::SetRequest*, wire::SetReply* reply) override
    {
        reply->set_answer(answers_.isSet);
        return grpc::Status::OK;
    }
    grpc::Status AskUsage(grpc::ServerContext*, const wire::UsageRequest*, wire::UsageReply* reply) override
    {
        return Answer(answers_.usages, reply);
    }
    grpc::Status AskRow(grpc::ServerContext*, const wire::RowRequest*, wire::RowReply* reply) override
    {
        return Answer(answers_.rows, reply);
    }

private:
    template <class Record, class Reply>
    static grpc::Status Answer(const std::vector<Record>& kept, Reply* reply)
    {
        reply->mutable_answer()->Reserve(static_cast<int>(kept.size()));
        for (const Record& record : kept) {
            Carry(*reply->add_answer(), record);
        }
        return grpc::Status::OK;
    }

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
    return MakeClient<GrpcPeer>(directory, workload);
}

}  // namespace bench
