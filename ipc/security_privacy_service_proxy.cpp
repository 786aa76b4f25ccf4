// SPDX-License-Identifier: Apache-2.0
#include "ipc/security_privacy_service_proxy.h"

#include <new>

#include "ipc/message_lists.h"
#include "security_privacy/app_permission_group_info.h"
#include "security_privacy/checked_state_parameter.h"
#include "security_privacy/contract.h"
#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result_with_ret.h"
#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"
#include "util/format_utils.h"
#include "util/log_line.h"

// A request is the interface token and the arguments in the order in which the operation below writes them; a reply is
// a result and what comes with it, in the order in which it reads them. Where a write or a read is not tested, the
// service sees a short request, and a short reply reads as zeros.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

namespace {

using Util::FormatUtils::Text;
using Util::KelLog::Tag;

const Tag LOG_TAG = Tag::Create("service", Tag::DEFAULT_COMPONENT_TAG, Tag::DEFAULT_SUB_SYSTEM_TAG);

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

// Reads the reply to a usage request: the result, which it returns, and if that is 0 the records. The lines name
// `operation`.
int32_t ReadUsageReply(MessageParcel& reply, const char* operation, std::vector<Record::PermissionUsageRecord>& records)
{
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
}

// The result of an operation for which memory ran out, in building the request or in reading the reply.
int32_t OutOfMemory(const char* operation)
{
    LOG_ERROR_AS(operation, "out of memory.");
    return RESULT_TRANSPORT_FAILED;
}

}  // namespace

bool SecurityPrivacyServiceProxy::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply)
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

int32_t SecurityPrivacyServiceProxy::GetAppPermissionGroupInfosByApp(
    const std::string& bundleName, int32_t userId, const std::unordered_set<std::string>& interestedPermissionGroups,
    std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos)
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

// Its set may have 10000 names, so unlike the one above it is not logged. A failed send leaves the frame's line alone.
int32_t SecurityPrivacyServiceProxy::GetAppPermissionGroupInfosByPermission(
    const std::string& permissionGroup, int32_t userId, const std::unordered_set<std::string>& interestedBundleNames,
    std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos)
try {
    LOG_DEBUG("ByPermission start, permissionGroup=%s, userId=%s", Text(permissionGroup).c_str(), Text(userId).c_str());
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

int32_t SecurityPrivacyServiceProxy::SetAppPermissionGroupCheckedState(
    const std::string& bundleName, int32_t uid, const std::string& permissionGroup,
    const Permission::CheckedStateParameter& checkedStateParameter, bool& returns)
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

int32_t SecurityPrivacyServiceProxy::GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery& query,
                                                               std::vector<Record::PermissionUsageRecord>& records)
try {
    LOG_INFO("GetPermissionUsageSummary called\n");  // with a newline of its own, which log readers skip
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(GetDescriptor());
    if (!data.WriteParcelable(&query)) {
        LOG_ERROR("permissionUsageRecordQuery is invalid.");
        return INVALID_ARGUMENTS;
    }
    if (!SendRequest(MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY, data, reply)) {
        LOG_ERROR("SendRequest failed.");
        return RESULT_TRANSPORT_FAILED;
    }
    return ReadUsageReply(reply, __func__, records);
} catch (const std::bad_alloc&) {
    return OutOfMemory(__func__);
}

int32_t SecurityPrivacyServiceProxy::GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery& query,
                                                                std::vector<Record::PermissionUsageRecord>& records)
try {
    LOG_INFO("GetPermissionUsageTimeline called\n");  // with a newline of its own, which log readers skip
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(GetDescriptor());
    if (!data.WriteParcelable(&query)) {
        LOG_ERROR(" permissionUsageRecordQuery is invalid.");  // the blank tells it from the summary's
        return INVALID_ARGUMENTS;
    }
    if (!SendRequest(MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE, data, reply)) {
        LOG_ERROR("SendRequest is failed.");
        return RESULT_TRANSPORT_FAILED;
    }
    return ReadUsageReply(reply, __func__, records);
} catch (const std::bad_alloc&) {
    return OutOfMemory(__func__);
}

int32_t SecurityPrivacyServiceProxy::GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos)
try {
    LOG_INFO("GTokenPolicyManagerProxy AddPolicy called");
    MessageParcel data;
    MessageParcel reply;
    if (!data.WriteInterfaceToken(GetDescriptor())) {
        LOG_ERROR("WriteInterfaceToken error");
        return RESULT_TRANSPORT_FAILED;
    }
    WriteList(data, gTokenInfos);
    if (!SendRequest(MessageCode::GTOKEN_POLICY_ADD_POLICY, data, reply)) {
        LOG_ERROR("SendRequest is failed.");
        return RESULT_TRANSPORT_FAILED;
    }

    const int32_t result = reply.ReadInt32();
    LOG_DEBUG("reply=%{public}d", result);
    return result;
} catch (const std::bad_alloc&) {
    return OutOfMemory(__func__);
}

GTokenResultWithRet SecurityPrivacyServiceProxy::GTokenPolicyGetPolicy(std::string policyName,
                                                                       const std::vector<std::string>& bundleNames)
try {
    LOG_INFO("GTokenPolicyManagerProxy GetPolicy called");
    GTokenResultWithRet result;
    MessageParcel data;
    MessageParcel reply;
    if (!data.WriteInterfaceToken(GetDescriptor())) {
        LOG_ERROR("WriteInterfaceToken error");
        result.ret = RESULT_TRANSPORT_FAILED;
        return result;
    }
    data.WriteString(policyName);
    WriteList(data, bundleNames);
    if (!SendRequest(MessageCode::GTOKEN_POLICY_GET_POLICY, data, reply)) {
        LOG_ERROR("SendRequest is failed.");
        result.ret = RESULT_TRANSPORT_FAILED;
        return result;
    }

    // As many rows as the service gives, for as many names as were asked for; they bring their own bytes.
    result.ret = reply.ReadInt64();
    ReadRecords(reply, reply.ReadInt32(), result.gTokenResults);
    return result;
} catch (const std::bad_alloc&) {
    GTokenResultWithRet result;
    result.ret = OutOfMemory(__func__);
    return result;
}

int32_t SecurityPrivacyServiceProxy::GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames)
try {
    LOG_INFO("GTokenPolicyManagerProxy RemovePolicy called");
    MessageParcel data;
    MessageParcel reply;
    if (!data.WriteInterfaceToken(GetDescriptor())) {
        LOG_ERROR("WriteInterfaceToken error");
        return RESULT_TRANSPORT_FAILED;
    }
    WriteList(data, bundleNames);
    if (!SendRequest(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, data, reply)) {
        LOG_ERROR("SendRequest is failed.");
        return RESULT_TRANSPORT_FAILED;
    }

    const int32_t result = reply.ReadInt32();
    LOG_DEBUG("reply=%{public}d", result);
    return result;
} catch (const std::bad_alloc&) {
    return OutOfMemory(__func__);
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
