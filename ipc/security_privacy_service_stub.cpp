// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/security_privacy_service_stub.h"

#include <algorithm>
#include <functional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ipc/message_lists.h"
#include "security_privacy/contract.h"
#include "util/format_utils.h"
#include "util/log_line.h"

// Each handler reads the arguments behind the interface token, calls the operation of its name on the service, and
// writes the reply. What it returns becomes the status of the request, which a client sees only as -1 unless it is 0.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

namespace {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("service");

// Writes what the service gave to a usage request, without its records when the result is not 0. Returns the result,
// which is the status too; the line names `handler`.
int32_t WriteUsage(MessageParcel& reply, const char* handler, int32_t result,
                   const std::vector<Record::PermissionUsageRecord>& records)
{
    reply.WriteInt32(result);
    if (result == RESULT_OK) {
        WriteList(reply, records);
        LOG_INFO_AS(handler, "result: %d, size: %d", result, SizeOf(records));
    }
    return result;
}

// Whether a GToken request holds more than one number; an error line in the name of `handler` if not.
bool HoldsGTokenArguments(const MessageParcel& data, const char* handler)
{
    const auto readableBytes = static_cast<uint32_t>(data.GetReadableBytes());
    if (readableBytes <= sizeof(int32_t)) {
        LOG_ERROR_AS(handler, "actual length error, value=%{public}u", readableBytes);
        return false;
    }
    return true;
}

}  // namespace

SecurityPrivacyServiceStub::SecurityPrivacyServiceStub() : IRemoteStub<SecurityPrivacyServiceIntf>(false)
{
    using Stub = SecurityPrivacyServiceStub;
    const auto handle = [this](uint32_t code, int32_t (Stub::*handler)(MessageParcel&, MessageParcel&)) {
        messageCodeHandlers_[code] = std::bind(handler, this, std::placeholders::_1, std::placeholders::_2);
    };
    handle(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP, &Stub::HandleGetAppPermissionGroupInfosByApp);
    handle(MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION,
           &Stub::HandleGetAppPermissionGroupInfosByPermission);
    handle(MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE, &Stub::HandleSetAppPermissionGroupCheckedState);
    handle(MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY, &Stub::HandleGetPermissionUsageSummary);
    handle(MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE, &Stub::HandleGetPermissionUsageTimeline);
    handle(MessageCode::GTOKEN_POLICY_ADD_POLICY, &Stub::HandleGTokenPolicyAddPolicy);
    handle(MessageCode::GTOKEN_POLICY_GET_POLICY, &Stub::HandleGTokenPolicyGetPolicy);
    handle(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, &Stub::HandleGTokenPolicyRemovePolicy);
}

SecurityPrivacyServiceStub::~SecurityPrivacyServiceStub() = default;

int32_t SecurityPrivacyServiceStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                                    MessageOption& /* option */)
{
    LOG_DEBUG("called with messageCode=%s", Text(code).c_str());
    const std::u16string token = data.ReadInterfaceToken();
    // Length and every unit, as a single memcmp, which the strings' own comparison is not.
    if (!std::equal(token.begin(), token.end(), GetDescriptor().begin(), GetDescriptor().end())) {
        LOG_ERROR("ReadInterfaceToken not equal to GetDescriptor, someone is attacking you.");
        return STATUS_REFUSED;
    }
    LOG_DEBUG("called, messageCode=%s, messageCodeStr=%s", Text(code).c_str(),
              Text(MessageCode::ToString(code)).c_str());
    // Before the lookup, so that a caller that may not ask does not learn which codes exist.
    if (!IsMessageCodeAllowed(code)) {
        LOG_ERROR("messageCode=%s messageCodeStr=%s forbidden access.", Text(code).c_str(),
                  Text(MessageCode::ToString(code)).c_str());
        return STATUS_REFUSED;
    }
    const auto handler = messageCodeHandlers_.find(code);
    if (handler == messageCodeHandlers_.end()) {
        // Not left to the platform, whose own handling could answer what the access check knows nothing of.
        LOG_ERROR("messageCode=%s not found.", Text(code).c_str());
        return STATUS_UNKNOWN_CODE;
    }
    const int32_t ipcCode = handler->second(data, reply);
    LOG_DEBUG("done, messageCode=%s, messageCodeStr=%s, ipcCode=%s", Text(code).c_str(),
              Text(MessageCode::ToString(code)).c_str(), Text(ipcCode).c_str());
    return ipcCode;
}

int32_t SecurityPrivacyServiceStub::HandleGetAppPermissionGroupInfosByApp(MessageParcel& data, MessageParcel& reply)
{
    const std::string bundleName = data.ReadString();
    const int32_t userId = data.ReadInt32();
    const int32_t size = data.ReadInt32();
    if (size > MAX_INTERESTED_PERMISSION_GROUPS_SIZE) {
        // The message has always named the other limit; log readers search for it.
        LOG_ERROR("interestedPermissionGroupsSize=%s too big, greater than MAX_INTERESTED_BUNDLE_NAMES_SIZE=%s.",
                  Text(size).c_str(), Text(MAX_INTERESTED_PERMISSION_GROUPS_SIZE).c_str());
        return STATUS_MALFORMED;
    }
    const auto interestedPermissionGroups = ReadStrings<std::unordered_set<std::string>>(data, size);

    std::vector<Permission::AppPermissionGroupInfo> infos;
    const int32_t result = GetAppPermissionGroupInfosByApp(bundleName, userId, interestedPermissionGroups, infos);
    reply.WriteInt32(result);
    if (result != RESULT_OK) {
        return result;  // as the status too: callers know a failed list by -1
    }
    WriteList(reply, infos, MAX_APP_PERMISSION_GROUP_INFO_SIZE);
    if (SizeOf(infos) > MAX_APP_PERMISSION_GROUP_INFO_SIZE) {
        LOG_ERROR("ByApp: index=%s is greater or equals than MAX_APP_PERMISSION_GROUP_INFO_SIZE=%s, please check.",
                  Text(MAX_APP_PERMISSION_GROUP_INFO_SIZE).c_str(), Text(MAX_APP_PERMISSION_GROUP_INFO_SIZE).c_str());
    }
    return RESULT_OK;
}

int32_t SecurityPrivacyServiceStub::HandleGetAppPermissionGroupInfosByPermission(MessageParcel& data,
                                                                                 MessageParcel& reply)
{
    const std::string permissionGroup = data.ReadString();
    const int32_t userId = data.ReadInt32();
    const int32_t size = data.ReadInt32();
    if (size > MAX_INTERESTED_BUNDLE_NAMES_SIZE) {
        LOG_ERROR("interestedBundleNamesSize=%s too big, greater than MAX_INTERESTED_BUNDLE_NAMES_SIZE=%s.",
                  Text(size).c_str(), Text(MAX_INTERESTED_BUNDLE_NAMES_SIZE).c_str());
        return STATUS_MALFORMED;
    }
    const auto interestedBundleNames = ReadStrings<std::unordered_set<std::string>>(data, size);

    std::vector<Permission::AppPermissionGroupInfo> infos;
    const int32_t result =
        GetAppPermissionGroupInfosByPermission(permissionGroup, userId, interestedBundleNames, infos);
    reply.WriteInt32(result);
    if (result != RESULT_OK) {
        return result;  // as the status too: callers know a failed list by -1
    }
    WriteList(reply, infos, MAX_APP_PERMISSION_GROUP_INFO_SIZE);
    if (SizeOf(infos) > MAX_APP_PERMISSION_GROUP_INFO_SIZE) {
        LOG_ERROR(
            "ByPermission: index=%s is greater or equals than MAX_APP_PERMISSION_GROUP_INFO_SIZE=%s, please check.",
            Text(MAX_APP_PERMISSION_GROUP_INFO_SIZE).c_str(), Text(MAX_APP_PERMISSION_GROUP_INFO_SIZE).c_str());
    }
    return RESULT_OK;
}

int32_t SecurityPrivacyServiceStub::HandleSetAppPermissionGroupCheckedState(MessageParcel& data, MessageParcel& reply)
{
    const std::string bundleName = data.ReadString();
    const int32_t uid = data.ReadInt32();
    const std::string permissionGroup = data.ReadString();
    const auto parameter = data.ReadParcelable<Permission::CheckedStateParameter>();
    if (parameter == nullptr) {
        LOG_ERROR("newCheckedStatePtr is nullptr, please check.");
        return STATUS_MALFORMED;
    }

    bool returns = false;
    const int32_t result = SetAppPermissionGroupCheckedState(bundleName, uid, permissionGroup, *parameter, returns);
    reply.WriteInt32(result);
    reply.WriteBool(returns);
    return RESULT_OK;  // whatever the result, unlike the two requests above: callers of this one test the code itself
}

int32_t SecurityPrivacyServiceStub::HandleGetPermissionUsageSummary(MessageParcel& data, MessageParcel& reply)
{
    const auto query = data.ReadParcelable<Record::PermissionUsageRecordQuery>();
    if (query == nullptr) {
        LOG_ERROR("permissionUsageRecordQuery is nullptr.");
        return STATUS_MALFORMED;
    }

    std::vector<Record::PermissionUsageRecord> records;
    const int32_t result = GetPermissionUsageSummary(*query, records);
    // However many records there are: other clients than the library's may take them.
    return WriteUsage(reply, __func__, result, records);
}

int32_t SecurityPrivacyServiceStub::HandleGetPermissionUsageTimeline(MessageParcel& data, MessageParcel& reply)
{
    const auto query = data.ReadParcelable<Record::PermissionUsageRecordQuery>();
    if (query == nullptr) {
        LOG_ERROR("permissionUsageRecordTimelineQuery is nullptr.");
        reply.WriteInt32(STATUS_MALFORMED);  // for clients that read it whatever the status; a summary has none
        return STATUS_MALFORMED;
    }

    std::vector<Record::PermissionUsageRecord> records;
    const int32_t result = GetPermissionUsageTimeline(*query, records);
    if (result == RESULT_OK && SizeOf(records) > MAX_USAGE_RECORD_SIZE) {
        reply.WriteInt32(STATUS_MALFORMED);  // the caller has to ask for less, where a summary would be sent whole
        return STATUS_MALFORMED;
    }
    return WriteUsage(reply, __func__, result, records);
}

int32_t SecurityPrivacyServiceStub::HandleGTokenPolicyAddPolicy(MessageParcel& data, MessageParcel& reply)
{
    if (!HoldsGTokenArguments(data, __func__)) {
        return INVALID_ARGUMENTS;
    }
    const int32_t size = data.ReadInt32();
    LOG_INFO("gTokenInfosSize, value=%{public}d", size);
    if (size < 1) {
        LOG_ERROR("gTokenInfos is null");
        return INVALID_ARGUMENTS;
    }
    if (size > MAX_GTOKEN_REQUEST_SIZE) {
        LOG_ERROR("gTokenInfos size is too big");
        return INVALID_ARGUMENTS;
    }
    std::vector<GTokenInfo> gTokenInfos;
    ReadRecords(data, size, gTokenInfos);

    reply.WriteInt32(GTokenPolicyAddPolicy(gTokenInfos));
    return RESULT_OK;
}

int32_t SecurityPrivacyServiceStub::HandleGTokenPolicyGetPolicy(MessageParcel& data, MessageParcel& reply)
{
    // At a level that is never dropped, so that the log shows who reads policies.
    LOG_ERROR("HandleGTokenPolicyGetPolicy called");
    if (!HoldsGTokenArguments(data, __func__)) {
        return INVALID_ARGUMENTS;
    }
    std::string policyName = data.ReadString();
    const int32_t size = data.ReadInt32();
    // No names at all is fine here, unlike in the other two requests: the answer is then empty.
    if (size > MAX_GTOKEN_REQUEST_SIZE) {
        LOG_ERROR("bundleNames size is too big");
        return INVALID_ARGUMENTS;
    }
    LOG_INFO("HandleGTokenPolicyGetPolicy bundleNamesSize = %{public}d", size);
    const auto bundleNames = ReadStrings<std::vector<std::string>>(data, size);

    const GTokenResultWithRet result = GTokenPolicyGetPolicy(std::move(policyName), bundleNames);
    reply.WriteInt64(result.ret);
    // Log readers know this text with its blank before the comma.
    LOG_INFO("HandleGTokenPolicyGetPolicy , gTokenResultsSize=%{public}d", SizeOf(result.gTokenResults));
    WriteList(reply, result.gTokenResults);
    return RESULT_OK;
}

int32_t SecurityPrivacyServiceStub::HandleGTokenPolicyRemovePolicy(MessageParcel& data, MessageParcel& reply)
{
    if (!HoldsGTokenArguments(data, __func__)) {
        return INVALID_ARGUMENTS;
    }
    const int32_t size = data.ReadInt32();
    if (size < 1) {
        LOG_ERROR("bundleNames is null");
        return INVALID_ARGUMENTS;
    }
    if (size > MAX_GTOKEN_REQUEST_SIZE) {
        LOG_ERROR("bundleNames size is too big");
        return INVALID_ARGUMENTS;
    }
    // The get's text, at a level that is never dropped; log readers tell the two by the function's name.
    LOG_ERROR("HandleGTokenPolicyGetPolicy bundleNamesSize = %{public}d", size);
    const auto bundleNames = ReadStrings<std::vector<std::string>>(data, size);

    reply.WriteInt32(GTokenPolicyRemovePolicy(bundleNames));
    return RESULT_OK;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
