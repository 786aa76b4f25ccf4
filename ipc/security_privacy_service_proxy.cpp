// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <new>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ipc/message_lists.h"
#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/contract.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"
#include "security_privacy/security_privacy_service_intf.h"
#include "util/format_utils.h"
#include "util/log_line.h"
#include "varn/message_parcel.h"
#include "varn/remote_proxy.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

namespace {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("service");

// Reads the reply to a request for permission groups: the result, which it returns, and if that is 0 the records. The
// lines name `operation`; each of the two has its own.
int32_t ReadGroupReply(MessageParcel& reply, const char* operation, bool isByApp,
                       std::vector<Permission::AppPermissionGroupInfo>& infos)
{
    const int32_t result = reply.ReadInt32();
    if (result != RESULT_OK) {
        LOG_ERROR_AS(operation, "result is %d.", result);
        return result;
    }
    const int32_t size = reply.ReadInt32();
    if (size > MAX_APP_PERMISSION_GROUP_INFO_SIZE) {
        isByApp ? LOG_ERROR_AS(operation, "ByApp return size too big.")
                : LOG_ERROR_AS(operation, "ByPermission return size too big.");
        return RESULT_OK;
    }
    ReadRecords(reply, size, infos);
    isByApp ? LOG_DEBUG_AS(operation, "ByApp finish, result=%s, appPermissionGroupInfos=%s", Text(result).c_str(),
                           Text(infos.size()).c_str())
            : LOG_DEBUG_AS(operation, "ByPermission finish, result=%s, size of appPermissionGroupInfos is %s",
                           Text(result).c_str(), Text(infos.size()).c_str());
    return RESULT_OK;
}

// The result of an operation for which memory ran out, in building the request or in reading the reply.
int32_t OutOfMemory(const char* operation)
{
    LOG_ERROR_AS(operation, "out of memory.");
    return RESULT_TRANSPORT_FAILED;
}

}  // namespace

// The client's half of the interface: each operation is one request to the remote object and the reading of its reply.
// It keeps no state, so several threads may use one proxy.
//
// A request is the interface token and the arguments in the order in which the operation writes them; a reply is a
// result and what comes with it, in the order in which it reads them. Where a write or a read is not tested, the
// service sees a short request, and a short reply reads as zeros.
class SecurityPrivacyServiceProxy : public IRemoteProxy<SecurityPrivacyServiceIntf> {
public:
    using IRemoteProxy<SecurityPrivacyServiceIntf>::IRemoteProxy;

    int32_t GetAppPermissionGroupInfosByApp(
        const std::string& bundleName, int32_t userId,
        const std::unordered_set<std::string>& interestedPermissionGroups,
        std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos) override
    try {
        LOG_DEBUG("ByApp start, bundleName=%s, userId=%s, interestedPermissionGroups=%s", Text(bundleName).c_str(),
                  Text(userId).c_str(), Util::FormatUtils::ToString(interestedPermissionGroups).c_str());
        MessageParcel data;
        MessageParcel reply;
        data.WriteInterfaceToken(GetDescriptor());
        data.WriteString(bundleName);
        data.WriteInt32(userId);
        WriteList(data, interestedPermissionGroups, MAX_INTERESTED_PERMISSION_GROUPS_SIZE);
        if (!SendRequest(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP, data, reply)) {
            LOG_ERROR("send request failed.");
            return RESULT_TRANSPORT_FAILED;
        }
        return ReadGroupReply(reply, __func__, true, appPermissionGroupInfos);
    } catch (const std::bad_alloc&) {
        return OutOfMemory(__func__);
    }

    // Its set may have 10000 names and is not logged, unlike that above. A failed send leaves the frame's line alone.
    int32_t GetAppPermissionGroupInfosByPermission(
        const std::string& permissionGroup, int32_t userId,
        const std::unordered_set<std::string>& interestedBundleNames,
        std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos) override
    try {
        LOG_DEBUG("ByPermission start, permissionGroup=%s, userId=%s", Text(permissionGroup).c_str(),
                  Text(userId).c_str());
        MessageParcel data;
        MessageParcel reply;
        data.WriteInterfaceToken(GetDescriptor());
        data.WriteString(permissionGroup);
        data.WriteInt32(userId);
        WriteList(data, interestedBundleNames, MAX_INTERESTED_BUNDLE_NAMES_SIZE);
        if (!SendRequest(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION, data, reply)) {
            return RESULT_TRANSPORT_FAILED;
        }
        return ReadGroupReply(reply, __func__, false, appPermissionGroupInfos);
    } catch (const std::bad_alloc&) {
        return OutOfMemory(__func__);
    }

    int32_t SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                              const std::string& permissionGroup,
                                              const Permission::CheckedStateParameter& checkedStateParameter,
                                              bool& returns) override
    try {
        LOG_DEBUG("Set start, bundleName=%s, uid=%s, permissionGroup=%s, checkedStateParameter=%s",
                  Text(bundleName).c_str(), Text(uid).c_str(), Text(permissionGroup).c_str(),
                  Text(checkedStateParameter).c_str());
        MessageParcel data;
        MessageParcel reply;
        data.WriteInterfaceToken(GetDescriptor());
        data.WriteString(bundleName);
        data.WriteInt32(uid);
        data.WriteString(permissionGroup);
        data.WriteParcelable(&checkedStateParameter);
        if (!SendRequest(MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE, data, reply)) {
            return RESULT_TRANSPORT_FAILED;
        }
        const int32_t result = reply.ReadInt32();
        returns = reply.ReadBool();
        LOG_DEBUG("Set finish, result=%s, returns=%s", Text(result).c_str(), Text(returns).c_str());
        return result;
    } catch (const std::bad_alloc&) {
        return OutOfMemory(__func__);
    }

    // The first line of this and the next has a newline of its own, which log readers skip.
    int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery& query,
                                      std::vector<Record::PermissionUsageRecord>& records) override
    {
        LOG_INFO("GetPermissionUsageSummary called\n");
        return GetUsage(__func__, true, query, records);
    }

    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery& query,
                                       std::vector<Record::PermissionUsageRecord>& records) override
    {
        LOG_INFO("GetPermissionUsageTimeline called\n");
        return GetUsage(__func__, false, query, records);
    }

    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos) override
    {
        LOG_INFO("GTokenPolicyManagerProxy AddPolicy called");
        return ChangePolicies(__func__, MessageCode::GTOKEN_POLICY_ADD_POLICY, gTokenInfos);
    }

    GTokenResultWithRet GTokenPolicyGetPolicy(std::string policyName,
                                              const std::vector<std::string>& bundleNames) override
    {
        LOG_INFO("GTokenPolicyManagerProxy GetPolicy called");
        GTokenResultWithRet result;
        result.ret = RESULT_TRANSPORT_FAILED;
        const auto writeArguments = [&](MessageParcel& data) {
            data.WriteString(policyName);
            WriteList(data, bundleNames);
        };
        try {
            MessageParcel reply;
            if (SendPolicyRequest(__func__, MessageCode::GTOKEN_POLICY_GET_POLICY, reply, writeArguments)) {
                // As many rows as the service gives, for as many names as were asked for; they bring their own bytes.
                result.ret = reply.ReadInt64();
                ReadRecords(reply, reply.ReadInt32(), result.gTokenResults);
            }
        } catch (const std::bad_alloc&) {
            result.ret = OutOfMemory(__func__);
        }
        return result;
    }

    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames) override
    {
        LOG_INFO("GTokenPolicyManagerProxy RemovePolicy called");
        return ChangePolicies(__func__, MessageCode::GTOKEN_POLICY_REMOVE_POLICY, bundleNames);
    }

private:
    // The one step that all operations share. False, after an error line, when there is no remote object or it answers
    // with a status other than 0.
    bool SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply)
    {
        MessageOption option(MessageOption::TF_SYNC, WAIT_TIME);
        const sptr<IRemoteObject> remote = Remote();
        if (remote == nullptr) {
            LOG_ERROR("remote service null.");
            return false;
        }
        const int32_t ipcCode = remote->SendRequest(code, data, reply, option);
        if (ipcCode != 0) {
            LOG_ERROR("ipcResultCode: %s, send request failed for %s", Text(ipcCode).c_str(),
                      MessageCode::ToString(code).c_str());
            return false;
        }
        return true;
    }

    // Either usage request, in the name of `operation`.
    int32_t GetUsage(const char* operation, bool isSummary, const Record::PermissionUsageRecordQuery& query,
                     std::vector<Record::PermissionUsageRecord>& records)
    try {
        MessageParcel data;
        MessageParcel reply;
        data.WriteInterfaceToken(GetDescriptor());
        if (!data.WriteParcelable(&query)) {
            // The blank tells the one from the other.
            isSummary ? LOG_ERROR_AS(operation, "permissionUsageRecordQuery is invalid.")
                      : LOG_ERROR_AS(operation, " permissionUsageRecordQuery is invalid.");
            return INVALID_ARGUMENTS;
        }
        if (!SendRequest(isSummary ? MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY
                                   : MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE,
                         data, reply)) {
            isSummary ? LOG_ERROR_AS(operation, "SendRequest failed.")
                      : LOG_ERROR_AS(operation, "SendRequest is failed.");
            return RESULT_TRANSPORT_FAILED;
        }
        const int32_t result = reply.ReadInt32();
        if (result != RESULT_OK) {
            LOG_ERROR_AS(operation, "result is %d.", result);
            return result;
        }
        const int32_t size = reply.ReadInt32();
        // No records at all get the same line as too many; a negative number gets none.
        if (size == 0 || size > MAX_USAGE_RECORD_SIZE) {
            LOG_WARN_AS(operation, "record size is abnormal.");
            return RESULT_OK;
        }
        ReadRecords(reply, size, records);
        return RESULT_OK;
    } catch (const std::bad_alloc&) {
        return OutOfMemory(operation);
    }

    // Sends a GToken request; these test the token, unlike the others. False, after an error line in the name of
    // `operation`, when it cannot be written or sent.
    template <class WriteArguments>
    bool SendPolicyRequest(const char* operation, uint32_t code, MessageParcel& reply,
                           const WriteArguments& writeArguments)
    {
        MessageParcel data;
        if (!data.WriteInterfaceToken(GetDescriptor())) {
            LOG_ERROR_AS(operation, "WriteInterfaceToken error");
            return false;
        }
        writeArguments(data);
        if (!SendRequest(code, data, reply)) {
            LOG_ERROR_AS(operation, "SendRequest is failed.");
            return false;
        }
        return true;
    }

    // Adds or removes policies, in the name of `operation`.
    template <class List>
    int32_t ChangePolicies(const char* operation, uint32_t code, const List& list)
    try {
        MessageParcel reply;
        if (!SendPolicyRequest(operation, code, reply, [&](MessageParcel& data) { WriteList(data, list); })) {
            return RESULT_TRANSPORT_FAILED;
        }
        const int32_t result = reply.ReadInt32();
        LOG_DEBUG_AS(operation, "reply=%{public}d", result);
        return result;
    } catch (const std::bad_alloc&) {
        return OutOfMemory(operation);
    }

    // Registers this class with the broker registry while the library is loaded.
    static inline BrokerDelegator<SecurityPrivacyServiceProxy> delegator_;
};

// The interface's own functions stand in one object with the proxy, so that a static library registers it: a program
// takes from one only the objects that it names something of. It names nothing of the proxy, but where it implements
// the interface or casts to it, it names the interface's destructor or type.
SecurityPrivacyServiceIntf::~SecurityPrivacyServiceIntf() = default;

std::string SecurityPrivacyServiceIntf::MessageCode::ToString(uint32_t code)
{
    static constexpr std::pair<uint32_t, const char*> NAMES[] = {
        {GET_APP_PERMISSION_GROUP_INFOS_BY_APP, "GET_APP_PERMISSION_GROUP_INFOS_BY_APP"},
        {GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION, "GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION"},
        {SET_APP_PERMISSION_GROUP_CHECKED_STATE, "SET_APP_PERMISSION_GROUP_CHECKED_STATE"},
        {GET_PERMISSION_USAGE_RECORD_SUMMARY, "GET_PERMISSION_USAGE_RECORD_SUMMARY"},
        {GET_PERMISSION_USAGE_RECORD_TIMELINE, "GET_PERMISSION_USAGE_RECORD_TIMELINE"},
        {GTOKEN_POLICY_ADD_POLICY, "GTOKEN_POLICY_ADD_POLICY"},
        {GTOKEN_POLICY_GET_POLICY, "GTOKEN_POLICY_GET_POLICY"},
        {GTOKEN_POLICY_REMOVE_POLICY, "GTOKEN_POLICY_REMOVE_POLICY"},
    };
    const auto* name =
        std::find_if(std::begin(NAMES), std::end(NAMES), [&](auto& entry) { return entry.first == code; });
    return name == std::end(NAMES) ? "UNKNOWN" : name->second;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
