// SPDX-License-Identifier: Apache-2.0
// gRPC over a Unix socket with its synchronous server and stub.
#include <grpcpp/grpcpp.h>

#include <iterator>
#include <stdexcept>
#include <string>

#include "bench.grpc.pb.h"
#include "bench/harness.h"

namespace bench {
namespace {

// The message is ours and read once, so that its texts may be moved out.
template <class Texts>
Texts Take(google::protobuf::RepeatedPtrField<std::string>& texts)
{
    return Texts(std::make_move_iterator(texts.begin()), std::make_move_iterator(texts.end()));
}

void Check(const grpc::Status& status)
{
    if (!status.ok()) {
        throw std::runtime_error(status.error_message());
    }
}

class Peer {
public:
    explicit Peer(const Workload& workload)
        : stub_(wire::Answering::NewStub(
              grpc::CreateChannel("unix:" + workload.SocketPath(), grpc::InsecureChannelCredentials())))
    {
    }

    auto Ask(const InfoRequest& request)
    {
        const auto& [name, userId, interested] = request.arguments;
        wire::InfoRequest message;
        message.set_name(name);
        message.set_user_id(userId);
        message.mutable_interested()->Add(interested.begin(), interested.end());
        wire::InfoReply reply;
        grpc::ClientContext context;
        Check(stub_->AskInfo(&context, message, &reply));
        std::vector<Info> infos;
        infos.reserve(static_cast<size_t>(reply.answer_size()));
        for (wire::Info& info : *reply.mutable_answer()) {
            infos.emplace_back(std::move(*info.mutable_bundle_name()), info.uid(),
                               std::move(*info.mutable_permission_group()), std::move(*info.mutable_checked_state()),
                               Take<std::vector<std::string>>(*info.mutable_shown_states()),
                               Take<std::unordered_set<std::string>>(*info.mutable_disabled_states()),
                               std::move(*info.mutable_disabled_reason()), info.flags());
        }
        return infos;
    }
    bool Ask(const SetRequest& request)
    {
        const auto& [bundleName, uid, permissionGroup, state, mask, value] = request.arguments;
        wire::SetRequest message;
        message.set_bundle_name(bundleName);
        message.set_uid(uid);
        message.set_permission_group(permissionGroup);
        message.set_checked_state(state);
        message.set_flags_mask(mask);
        message.set_flags_value(value);
        wire::SetReply reply;
        grpc::ClientContext context;
        Check(stub_->AskSet(&context, message, &reply));
        return reply.answer();
    }

private:
    const std::unique_ptr<wire::Answering::Stub> stub_;
};

// Does not copy the arguments: the message already holds them as std::string.
class Service final : public wire::Answering::Service {
public:
    explicit Service(const Workload& workload) : answers_(MakeAnswers(workload)) {}

    grpc::Status AskInfo(grpc::ServerContext*, const wire::InfoRequest*, wire::InfoReply* reply) override
    {
        const auto& infos = std::get<std::vector<Info>>(answers_);
        reply->mutable_answer()->Reserve(static_cast<int>(infos.size()));
        for (const auto& [bundleName, uid, group, state, shownStates, disabledStates, reason, flags] : infos) {
            wire::Info& info = *reply->add_answer();
            info.set_bundle_name(bundleName);
            info.set_uid(uid);
            info.set_permission_group(group);
            info.set_checked_state(state);
            info.mutable_shown_states()->Add(shownStates.begin(), shownStates.end());
            info.mutable_disabled_states()->Add(disabledStates.begin(), disabledStates.end());
            info.set_disabled_reason(reason);
            info.set_flags(flags);
        }
        return grpc::Status::OK;
    }
    grpc::Status AskSet(grpc::ServerContext*, const wire::SetRequest*, wire::SetReply* reply) override
    {
        reply->set_answer(std::get<bool>(answers_));
        return grpc::Status::OK;
    }

private:
    const Answers answers_;
};

}  // namespace

void Serve(const Workload& workload)
{
    Service service(workload);
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + workload.SocketPath(), grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (server == nullptr) {
        throw std::runtime_error("the server does not start");
    }
    AnnounceReady();
    server->Wait();
}

void Connect(const Workload& workload)
{
    RunClient<Peer, InfoRequest, SetRequest>(workload);
}

}  // namespace bench
