// SPDX-License-Identifier: Apache-2.0
#include "cli/remote_service.h"

#include <unistd.h>

#include <cstdlib>
#include <new>
#include <utility>

#include "cli/failure.h"
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

namespace Contract = VARN::AppSecurityPrivacy::SecurityPrivacyServer;
using SecurityPrivacyService = RemoteService::Interface;

constexpr const char* DIRECTORY_VARIABLE = "VARN_ABILITY_DIR";
// At most so long is an answer without records: its result and their number.
constexpr size_t EMPTY_LIST_BYTES = 12;

// Why a call with such a status failed; null for a status that is the service's own result.
const char* Describe(int32_t status)
{
    switch (status) {
        case Contract::STATUS_UNKNOWN_CODE:
        case VARN::IPC_UNKNOWN_REQUEST:
            return "the service does not know this request; it may be of another version";
        case Contract::STATUS_MALFORMED:
            return "the service could not read the request, or the answer has more than the 10000 records that are "
                   "allowed; narrow it with --since, --until or --limit";
        case Contract::INVALID_ARGUMENTS:
            return "the service could not read the request, or it has more than the 10000 entries that are allowed";
        case VARN::IPC_DEAD_OBJECT:
            return "the connection was lost before the answer came, so the request may or may not have been executed; "
                   "the service's log may say why";
        case VARN::IPC_TIMED_OUT:
            return "the service took too long to answer, so the request may or may not have been executed";
        case VARN::IPC_PROTOCOL_ERROR:
            return "the answer makes no sense; the socket may belong to another kind of service";
        case VARN::IPC_TOO_LARGE:
            return "the request or the answer is longer than a message may be, or than the service has room for now";
        case VARN::IPC_NO_MEMORY:
            return "memory ran out";
        case VARN::IPC_SERVICE_FAILED:
            return "the service failed while it handled the request; its log says how";
        default:
            return status < 0 ? "the call failed" : nullptr;
    }
}

Failure ServiceResult(int32_t code)
{
    const ResultDescription* known = DescribeResult(code);
    const std::string what = known != nullptr ? std::string(known->name) + ": " + known->meaning
                                              : "which is no code that this program knows";
    return Failure(EXIT_SERVICE_RESULT, "the service answered " + std::to_string(code) + ", " + what, code,
                   known != nullptr ? known->name : "");
}

}  // namespace

// The service's object, with a note of how each call ended.
class RemoteService::WatchedObject final : public VARN::IRemoteObject {
public:
    WatchedObject(Call& call, VARN::sptr<VARN::IRemoteObject> object) : call_(call), object_(std::move(object)) {}

    int32_t SendRequest(uint32_t code, VARN::MessageParcel& data, VARN::MessageParcel& reply,
                        VARN::MessageOption& option) override
    {
        const auto start = steady_clock::now();
        call_.isSent = true;
        call_.status = object_->SendRequest(code, data, reply, option);
        call_.replyBytes = reply.GetDataSize();
        call_.answering = steady_clock::now() - start;
        return call_.status;
    }

private:
    Call& call_;
    const VARN::sptr<VARN::IRemoteObject> object_;
};

std::string ServiceDirectory(const ServiceOptions& options)
{
    const char* variable = std::getenv(DIRECTORY_VARIABLE);
    return !options.directory.empty()                 ? options.directory
           : variable != nullptr && *variable != '\0' ? variable
                                                      : "/run/varn";
}

RemoteService::RemoteService(const ServiceOptions& options) : isVerbose_(options.isVerbose)
{
    if (!options.directory.empty()) {
        ::setenv(DIRECTORY_VARIABLE, options.directory.c_str(), 1);
    }
    VARN::Host::SetLogLevel(isVerbose_ ? VARN::LOG_LEVEL_DEBUG : VARN::LOG_LEVEL_WARN);
    if (!isVerbose_) {
        VARN::Host::SetLogSink([lastLine = lastLine_](const VARN::Host::LogLine& line) {
            // The library's lines follow from the platform's, which say what really happened.
            if (line.tag == "VARN") {
                *lastLine = line.text;
            }
        });
    }
    const auto start = steady_clock::now();
    const Contract::ConnectResult found = Contract::Connect(options.waitSeconds);
    call_.finding = steady_clock::now() - start;
    if (found.service == nullptr) {
        throw Failure(EXIT_UNREACHABLE, "cannot reach the service: " + Reason() +
                                            "\nStart security-privacy-service, or name the folder of its socket with "
                                            "--directory.");
    }
    const auto broker = VARN::BrokerRegistration::Get().NewInstance(
        SecurityPrivacyService::GetDescriptor(), new WatchedObject(call_, found.service->AsObject()));
    service_ = dynamic_cast<SecurityPrivacyService*>(broker.Get());
    if (service_ == nullptr) {
        throw std::bad_alloc();
    }
}

void RemoteService::CheckAnswer() const
{
    if (!call_.isSent) {
        throw Failure(EXIT_BROKEN, "the request could not be sent: " + Reason());
    }
    if (call_.status == Contract::STATUS_REFUSED) {
        const uid_t uid = ::geteuid();
        const char* hint = uid == 0
                               ? "It is read-only, or lets other users alone make changes."
                               : "Try again as root or as the service's own user, unless the service is read-only.";
        throw Failure(EXIT_REFUSED,
                      "the service refused the request: user id " + std::to_string(uid) + " may not do this\n" + hint,
                      call_.status);
    }
    if (const char* reason = Describe(call_.status)) {
        const std::string line = call_.status < 0 ? "\n" + Reason() : "";
        throw Failure(EXIT_BROKEN, std::string(reason) + " (status " + std::to_string(call_.status) + ")" + line,
                      call_.status);
    }
}

void RemoteService::Check(int64_t result) const
{
    CheckAnswer();
    // Some results of the service end the call, the others come in its reply.
    const int64_t code = call_.status != 0 ? call_.status : result;
    if (code != 0) {
        throw ServiceResult(static_cast<int32_t>(code));
    }
}

void RemoteService::CheckRecords(size_t count) const
{
    if (count == 0 && call_.replyBytes > EMPTY_LIST_BYTES) {
        throw Failure(
            EXIT_BROKEN,
            "the answer has more than the 10000 records that are allowed, or they make no sense; narrow it with "
            "filters, --since, --until or --limit");
    }
}

std::string RemoteService::Reason() const
{
    if (isVerbose_) {
        return "see the log lines above";
    }
    return lastLine_->empty() ? "no reason was logged" : *lastLine_;
}

}  // namespace SecurityPrivacyTools
