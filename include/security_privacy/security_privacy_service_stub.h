// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>

#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/export.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"
#include "security_privacy/security_privacy_service_intf.h"
#include "varn/remote_stub.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// What a service process derives from: it implements the eight operations of the interface and the access check, and
// hands the object to the platform. The stub checks each request, reads its arguments within their limits, calls the
// operation on itself and writes the reply.
//
// Thread safety: requests arrive on several threads at once, and so do the calls to the operations and the access
// check; their locking is the service's own. The stub itself changes nothing after construction.
class SECURITY_PRIVACY_API SecurityPrivacyServiceStub : public IRemoteStub<SecurityPrivacyServiceIntf> {
public:
    SecurityPrivacyServiceStub();
    ~SecurityPrivacyServiceStub() override;

    // Handles one request. Returns 1 when it is meant for another interface or the access check refuses it, 4 when the
    // code is not known, 5 (permission groups, usage) or 401 (GToken) when the request is malformed, 5 also when a
    // timeline has more than 10000 records, and otherwise 0 or the operation's own non-zero result where that ends the
    // request. Any other status than 0 reaches a client as -1.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    // The access check: whether the sender of the request that this thread is handling may use `messageCode`. The stub
    // asks for every request with the right interface token before it reads anything else of it, also for codes that
    // do not exist.
    virtual bool IsMessageCodeAllowed(uint32_t messageCode) = 0;

private:
    int32_t HandleGetAppPermissionGroupInfosByApp(MessageParcel& data, MessageParcel& reply);
    int32_t HandleGetAppPermissionGroupInfosByPermission(MessageParcel& data, MessageParcel& reply);
    int32_t HandleSetAppPermissionGroupCheckedState(MessageParcel& data, MessageParcel& reply);
    int32_t HandleGetPermissionUsageSummary(MessageParcel& data, MessageParcel& reply);
    int32_t HandleGetPermissionUsageTimeline(MessageParcel& data, MessageParcel& reply);
    int32_t HandleGTokenPolicyAddPolicy(MessageParcel& data, MessageParcel& reply);
    int32_t HandleGTokenPolicyGetPolicy(MessageParcel& data, MessageParcel& reply);
    int32_t HandleGTokenPolicyRemovePolicy(MessageParcel& data, MessageParcel& reply);

    // Filled by the constructor, only read afterwards.
    std::unordered_map<uint32_t, std::function<int32_t(MessageParcel& data, MessageParcel& reply)>>
        messageCodeHandlers_;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
