// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "security_privacy/security_privacy_service_intf.h"
#include "varn/ref_base.h"

namespace SecurityPrivacyTools {

struct ServiceOptions {
    std::string directory;  // of the socket; empty: as the platform finds it
    int32_t waitSeconds = 4;
    bool isVerbose = false;
};

// Where the service's sockets are.
std::string ServiceDirectory(const ServiceOptions& options);

// What is known of the last call.
struct Call {
    std::chrono::nanoseconds finding{0};  // how long it took to find the service
    bool isSent = false;
    int32_t status = 0;  // 0, the service's status, or an IpcCode
    size_t replyBytes = 0;
    std::chrono::nanoseconds answering{0};
};

// The service, found, and what became of the last call to it. An interface tells its caller little, -1 for a call that
// was refused, malformed or lost. This stands between proxy and remote object, where the status is seen, and takes the
// log lines: all go to standard error when they are wanted, else the last one of the platform is kept as the reason of
// a failure.
//
// One at a time. Thread safety: one thread.
class RemoteService {
public:
    using Interface = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceIntf;

    // Throws Failure when the service is not found within the time.
    explicit RemoteService(const ServiceOptions& options);

    RemoteService(const RemoteService&) = delete;
    RemoteService& operator=(const RemoteService&) = delete;

    Interface* operator->() const { return service_.Get(); }

    // To be called after each call with what it returned. Throws Failure unless there was an answer, and it is 0.
    void Check(int64_t result) const;

    // The same for a call that brings records: an interface takes too many of them for none.
    template <class Record>
    void Check(int64_t result, const std::vector<Record>& records) const
    {
        Check(result);
        CheckRecords(records.size());
    }

    // Sends a request that brings records: a member function of the interface whose last argument they are.
    template <class Record, class Request, class... Arguments>
    std::vector<Record> List(Request request, const Arguments&... arguments) const
    {
        std::vector<Record> records;
        const int32_t result = (service_.Get()->*request)(arguments..., records);
        Check(result, records);
        return records;
    }

    // Throws Failure unless there was an answer, whatever it says.
    void CheckAnswer() const;

    const Call& LastCall() const { return call_; }

private:
    class WatchedObject;

    void CheckRecords(size_t count) const;
    std::string Reason() const;

    const bool isVerbose_;
    // The sink has a share of it: log lines may come when this object is gone.
    const std::shared_ptr<std::string> lastLine_ = std::make_shared<std::string>();
    Call call_;
    VARN::sptr<Interface> service_;
};

}  // namespace SecurityPrivacyTools
