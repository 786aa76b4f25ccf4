// SPDX-License-Identifier: Apache-2.0
#include "cli/connection.h"

#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "cli/failure.h"
#include "common/result_codes.h"
#include "varn/remote_object.h"
#include "varn/system_ability_manager.h"

namespace SecurityPrivacyExample {
namespace {

using std::chrono::steady_clock;

constexpr const char* DIRECTORY_VARIABLE = "VARN_ABILITY_DIR";
constexpr int DEBUG_LEVEL = 3;
constexpr int WARN_LEVEL = 5;

// What the library's half in the service answers by itself.
constexpr int32_t STATUS_REFUSED = 1;
constexpr int32_t STATUS_UNKNOWN_REQUEST = 4;
constexpr int32_t STATUS_MALFORMED = 5;
constexpr int32_t STATUS_MALFORMED_GTOKEN = 401;

// Why an exchange with such a status failed; null for a status that is the service's own result.
const char* Describe(int32_t status)
{
    switch (status) {
        case STATUS_UNKNOWN_REQUEST:
        case VARN::IPC_UNKNOWN_REQUEST:
            return "the service does not know this request; it may be of another version";
        case STATUS_MALFORMED:
            return "the service could not read the request, or the answer has more than the 10000 records that are "
                   "allowed; narrow it with --since, --until or --limit";
        case STATUS_MALFORMED_GTOKEN:
            return "the service could not read the request, or it has more than the 10000 entries that are allowed";
        case VARN::IPC_DEAD_OBJECT:
            return "the connection was lost before the answer came, so the request may or may not have been executed; "
                   "the service's log may say why";
        case VARN::IPC_TIMED_OUT:
            return "the service took too long to answer, so the request may or may not have been executed";
        case VARN::IPC_PROTOCOL_ERROR:
            return "the answer makes no sense; the socket may belong to another kind of service";
        case VARN::IPC_TOO_LARGE:
            return "the request or the answer is longer than a message may be";
        case VARN::IPC_NO_MEMORY:
            return "memory ran out";
        case VARN::IPC_SERVICE_FAILED:
            return "the service failed while it handled the request; its log says how";
        default:
            return status < 0 ? "the exchange failed" : nullptr;
    }
}

Failure ServiceResult(int32_t code)
{
    const char* name = ResultCodeName(code);
    const std::string what = name != nullptr ? std::string(name) + ": " + ResultCodeMeaning(code)
                                             : "which is no code that this program knows";
    return Failure(EXIT_SERVICE_RESULT, code, name != nullptr ? name : "",
                   "the service answered " + std::to_string(code) + ", " + what);
}

}  // namespace

// The service's object, with a note of how each request ended.
class Connection::Object final : public VARN::IRemoteObject {
public:
    Object(Exchange& exchange, VARN::sptr<VARN::IRemoteObject> object) : exchange_(exchange), object_(std::move(object))
    {
    }

    int32_t SendRequest(uint32_t code, VARN::MessageParcel& data, VARN::MessageParcel& reply,
                        VARN::MessageOption& option) override
    {
        const auto start = steady_clock::now();
        exchange_.isSent = true;
        exchange_.status = object_->SendRequest(code, data, reply, option);
        exchange_.answering = steady_clock::now() - start;
        return exchange_.status;
    }

    bool IsProxyObject() const override { return object_->IsProxyObject(); }
    bool IsObjectDead() const override { return object_->IsObjectDead(); }

private:
    Exchange& exchange_;
    const VARN::sptr<VARN::IRemoteObject> object_;
};

// The platform's manager, asked with the wait time of the command line in place of the client's own.
class Connection::Manager final : public VARN::ISystemAbilityManager {
public:
    Manager(Exchange& exchange, int32_t waitSeconds)
        : exchange_(exchange),
          waitSeconds_(waitSeconds),
          manager_(VARN::SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager())
    {
    }

    VARN::sptr<VARN::IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t /*timeoutSeconds*/) override
    {
        const auto start = steady_clock::now();
        VARN::sptr<VARN::IRemoteObject> object = manager_->LoadSystemAbility(systemAbilityId, waitSeconds_);
        exchange_ = Exchange{};
        exchange_.isFound = static_cast<bool>(object);
        exchange_.finding = steady_clock::now() - start;
        return object ? VARN::sptr<VARN::IRemoteObject>(new Object(exchange_, std::move(object))) : nullptr;
    }

private:
    Exchange& exchange_;
    const int32_t waitSeconds_;
    const VARN::sptr<VARN::ISystemAbilityManager> manager_;
};

Connection::Connection(const ConnectionOptions& options) : isVerbose_(options.isVerbose)
{
    if (!options.directory.empty()) {
        ::setenv(DIRECTORY_VARIABLE, options.directory.c_str(), 1);
    }
    VARN::Host::SetLogLevel(isVerbose_ ? DEBUG_LEVEL : WARN_LEVEL);
    if (!isVerbose_) {
        VARN::Host::SetLogSink([this](const VARN::Host::LogLine& line) { TakeLogLine(line); });
    }
    VARN::SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(
        new Manager(exchange_, options.waitSeconds));
}

Connection::~Connection()
{
    VARN::SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(nullptr);
    VARN::Host::SetLogSink(nullptr);
}

void Connection::CheckExchange() const
{
    if (!exchange_.isFound) {
        throw Failure(EXIT_UNREACHABLE, "cannot reach the service: " + LastErrorLine() +
                                            "\nStart security-privacy-service, or name the folder of its socket with "
                                            "--directory.");
    }
    if (!exchange_.isSent) {
        throw Failure(EXIT_BROKEN, "the request could not be sent: " + LastErrorLine());
    }
    if (exchange_.status == STATUS_REFUSED) {
        throw Failure(EXIT_REFUSED, exchange_.status, "",
                      "the service refused the request: user id " + std::to_string(::getuid()) +
                          " may not do this\nTry again as root or as the service's own user, unless the service is "
                          "read-only.");
    }
    if (const char* reason = Describe(exchange_.status)) {
        const std::string line = exchange_.status < 0 ? "\n" + LastErrorLine() : "";
        throw Failure(EXIT_BROKEN, exchange_.status, "",
                      std::string(reason) + " (status " + std::to_string(exchange_.status) + ")" + line);
    }
}

void Connection::Check(int64_t result) const
{
    CheckExchange();
    // Some results of the service end the exchange, the others come in its reply.
    const int64_t code = exchange_.status != 0 ? exchange_.status : result;
    if (code != 0) {
        throw ServiceResult(static_cast<int32_t>(code));
    }
}

void Connection::TakeLogLine(const VARN::Host::LogLine& line)
{
    // The library's lines follow from the platform's, which say what really happened.
    if (line.tag == "VARN") {
        const std::lock_guard<std::mutex> lock(mutex_);
        lastErrorLine_ = line.text;
    }
}

std::string Connection::LastErrorLine() const
{
    if (isVerbose_) {
        return "see the log lines above";
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    return lastErrorLine_.empty() ? "no reason was logged" : lastErrorLine_;
}

}  // namespace SecurityPrivacyExample
