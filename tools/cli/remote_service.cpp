// SPDX-License-Identifier: Apache-2.0
#include "cli/remote_service.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <utility>

#include "common/result_codes.h"
#include "security_privacy/connect.h"
#include "security_privacy/contract.h"
#include "varn/host/log_sink.h"
#include "varn/log.h"
#include "varn/remote_broker.h"
#include "varn/remote_object.h"

namespace SecurityPrivacyTools {
namespace {

using std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

namespace Contract = VARN::AppSecurityPrivacy::SecurityPrivacyServer;

// At most so long is an answer without records: its result and their number.
constexpr size_t EMPTY_LIST_BYTES = 12;

// Why a call with such a status failed.
const std::map<int32_t, const char*> reasons = {
    {Contract::STATUS_UNKNOWN_CODE, "the service does not know this request; it may be of another version"},
    {VARN::IPC_UNKNOWN_REQUEST, "the service does not know this request; it may be of another version"},
    {Contract::STATUS_MALFORMED,
     "the service could not read the request, or the answer has more than the 10000 records that are allowed; "
     "narrow it with --since, --until or --limit"},
    {Contract::INVALID_ARGUMENTS,
     "the service could not read the request, or it has more than the 10000 entries that are allowed"},
    {VARN::IPC_DEAD_OBJECT,
     "the connection was lost before the answer came, so the request may or may not have been executed; the "
     "service's log may say why"},
    {VARN::IPC_TIMED_OUT, "the service took too long to answer, so the request may or may not have been executed"},
    {VARN::IPC_PROTOCOL_ERROR, "the answer makes no sense; the socket may belong to another kind of service"},
    {VARN::IPC_TOO_LARGE,
     "the request or the answer is longer than a message may be, or than the service has room for now"},
    {VARN::IPC_NO_MEMORY, "memory ran out"},
    {VARN::IPC_SERVICE_FAILED, "the service failed while it handled the request; its log says how"},
};

// The service's object, with a note of how each call ended.
class WatchedObject final : public VARN::IRemoteObject {
public:
    WatchedObject(Call& call, VARN::sptr<VARN::IRemoteObject> object) : call_(call), object_(std::move(object)) {}

    int32_t SendRequest(uint32_t code, VARN::MessageParcel& data, VARN::MessageParcel& reply,
                        VARN::MessageOption& option) override
    {
        const auto start = steady_clock::now();
        call_.isSent = true;
        call_.status = object_->SendRequest(code, data, reply, option);
        call_.replyBytes = reply.GetDataSize();
        call_.answeringMs = Milliseconds(steady_clock::now() - start).count();
        return call_.status;
    }

private:
    Call& call_;
    const VARN::sptr<VARN::IRemoteObject> object_;
};

void CheckAnswer(const Call& call, const std::string& reason)
{
    if (!call.isSent) {
        throw Failure(EXIT_BROKEN, "the request could not be sent: " + reason);
    }
    if (call.status == Contract::STATUS_REFUSED) {
        const uid_t uid = ::geteuid();
        const char* hint = uid == 0
                               ? "It is read-only, or lets other users alone make changes."
                               : "Try again as root or as the service's own user, unless the service is read-only.";
        throw Failure(EXIT_REFUSED,
                      "the service refused the request: user id " + std::to_string(uid) + " may not do this\n" + hint,
                      call.status);
    }
    const auto known = reasons.find(call.status);
    // Any other status from 0 on is the service's own result.
    if (known != reasons.end() || call.status < 0) {
        const std::string description = known != reasons.end() ? known->second : "the call failed";
        const std::string line = call.status < 0 ? "\n" + reason : "";
        throw Failure(EXIT_BROKEN, description + " (status " + std::to_string(call.status) + ")" + line, call.status);
    }
}

}  // namespace

Call Ask(const Program& program, const std::function<int64_t(Service&)>& request)
{
    VARN::Host::SetLogLevel(program.isVerbose ? VARN::LOG_LEVEL_DEBUG : VARN::LOG_LEVEL_WARN);
    // The sink has a share of it: log lines may come when this call is over.
    const auto reason =
        std::make_shared<std::string>(program.isVerbose ? "see the log lines above" : "no reason was logged");
    if (!program.isVerbose) {
        VARN::Host::SetLogSink([reason](const VARN::Host::LogLine& line) {
            // The library's lines follow from the platform's, which say what really happened.
            if (line.tag == "VARN") {
                *reason = line.text;
            }
        });
    }
    Call call;
    const auto start = steady_clock::now();
    const Contract::ConnectResult found = Contract::Connect(program.waitSeconds);
    call.findingMs = Milliseconds(steady_clock::now() - start).count();
    if (found.service == nullptr) {
        throw Failure(EXIT_UNREACHABLE, "cannot reach the service: " + *reason +
                                            "\nStart security-privacy-service, or name the folder of its socket with "
                                            "--directory.");
    }
    const auto broker = VARN::BrokerRegistration::Get().NewInstance(Service::GetDescriptor(),
                                                                    new WatchedObject(call, found.service->AsObject()));
    auto* service = dynamic_cast<Service*>(broker.Get());
    if (service == nullptr) {
        throw std::bad_alloc();
    }
    call.result = request(*service);
    CheckAnswer(call, *reason);
    // Some results of the service end the call, the others come in its reply.
    call.result = call.status != 0 ? call.status : call.result;
    return call;
}

void Check(const Call& call, size_t records)
{
    if (call.result != 0) {
        const auto code = static_cast<int32_t>(call.result);
        const auto* known = std::find(std::begin(RESULT_CODES), std::end(RESULT_CODES), code);
        const bool isKnown = known != std::end(RESULT_CODES);
        const std::string what =
            isKnown ? std::string(known->name) + ": " + known->meaning : "which is no code that this program knows";
        throw Failure(EXIT_SERVICE_RESULT, "the service answered " + std::to_string(code) + ", " + what, code,
                      isKnown ? known->name : "");
    }
    if (records == 0 && call.replyBytes > EMPTY_LIST_BYTES) {
        throw Failure(
            EXIT_BROKEN,
            "the answer has more than the 10000 records that are allowed, or they make no sense; narrow it with "
            "filters, --since, --until or --limit");
    }
}

}  // namespace SecurityPrivacyTools
