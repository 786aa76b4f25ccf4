// SPDX-License-Identifier: Apache-2.0
#include "support/exchange.h"

#include <cstdlib>
#include <filesystem>

#include "varn/host/ability_manager.h"
#include "varn/remote_broker.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

// A folder that only we may enter, there until the program ends.
class PrivateFolder {
public:
    PrivateFolder() { ::setenv("VARN_ABILITY_DIR", ::mkdtemp(path_.data()), 1); }
    ~PrivateFolder() { std::filesystem::remove_all(path_); }

private:
    std::string path_ = (std::filesystem::temp_directory_path() / "exchange.XXXXXX").string();
};

std::vector<Operation> MakeOperations()
{
    const std::string parameter = MakeCheckedStateParameter().ToString();
    return {
        {1, "GET_APP_PERMISSION_GROUP_INFOS_BY_APP", "GetAppPermissionGroupInfosByApp", "", "",
         "ByApp start, bundleName='app', userId=-100, interestedPermissionGroups={'it's'}", DEBUG,
         "send request failed."},
        {2, "GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION", "GetAppPermissionGroupInfosByPermission", "", "",
         "ByPermission start, permissionGroup='group', userId=101", DEBUG, ""},
        {3, "SET_APP_PERMISSION_GROUP_CHECKED_STATE", "SetAppPermissionGroupCheckedState", "", "",
         "Set start, bundleName='app', uid=20, permissionGroup='group', checkedStateParameter=" + parameter, DEBUG, ""},
        // The summary is reported under the timeline's name.
        {4, "GET_PERMISSION_USAGE_RECORD_SUMMARY", "GetPermissionUsageSummary", "GetPermissionUsageTimeline", "",
         "GetPermissionUsageSummary called\n", INFO, "SendRequest failed."},
        {5, "GET_PERMISSION_USAGE_RECORD_TIMELINE", "GetPermissionUsageTimeline", "", "",
         "GetPermissionUsageTimeline called\n", INFO, "SendRequest is failed."},
        {11, "GTOKEN_POLICY_ADD_POLICY", "GTokenPolicyAddPolicy", "", "GTokenPolicySdkAdaptor AddPolicy called",
         "GTokenPolicyManagerProxy AddPolicy called", INFO, "SendRequest is failed."},
        {12, "GTOKEN_POLICY_GET_POLICY", "GTokenPolicyGetPolicy", "", "GTokenPolicySdkAdaptor GetPolicy called",
         "GTokenPolicyManagerProxy GetPolicy called", INFO, "SendRequest is failed."},
        {13, "GTOKEN_POLICY_REMOVE_POLICY", "GTokenPolicyRemovePolicy", "",
         "GTokenPolicySdkAdaptor RemovePolicy called", "GTokenPolicyManagerProxy RemovePolicy called", INFO,
         "SendRequest is failed."},
    };
}

}  // namespace

std::vector<std::string> Operation::ClientLines() const
{
    return calledByClient.empty() ? std::vector<std::string>() : std::vector{Line(INFO, method, calledByClient)};
}

std::vector<std::string> Operation::ProxyLines() const
{
    return {Line(startLevel, method, startedByProxy)};
}

std::vector<std::string> Operation::SendFailedLines() const
{
    return sendFailed.empty() ? std::vector<std::string>() : std::vector{Line(ERROR, method, sendFailed)};
}

const std::vector<Operation>& Operations()
{
    static const std::vector<Operation> operations = MakeOperations();
    return operations;
}

const Operation& OperationOf(uint32_t code)
{
    size_t index = 0;
    while (Operations().at(index).code != code) {
        ++index;
    }
    return Operations()[index];
}

std::vector<std::string> DispatchLines(uint32_t code)
{
    const std::string number = std::to_string(code);
    return {Line(DEBUG, "OnRemoteRequest", "called with messageCode=" + number),
            Line(DEBUG, "OnRemoteRequest",
                 "called, messageCode=" + number + ", messageCodeStr='" + MessageCode::ToString(code) + "'")};
}

std::string DoneLine(uint32_t code, int32_t status)
{
    return Line(DEBUG, "OnRemoteRequest",
                "done, messageCode=" + std::to_string(code) + ", messageCodeStr='" + MessageCode::ToString(code) +
                    "', ipcCode=" + std::to_string(status));
}

int32_t ScriptedObject::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    sent.push_back({code, option.GetFlags(), option.GetWaitTime()});
    return script_(code, data, reply);
}

sptr<SecurityPrivacyServiceIntf> ProxyOver(const sptr<IRemoteObject>& object)
{
    const sptr<IRemoteBroker> broker =
        BrokerRegistration::Get().NewInstance(SecurityPrivacyServiceIntf::GetDescriptor(), object);
    return sptr<SecurityPrivacyServiceIntf>(static_cast<SecurityPrivacyServiceIntf*>(broker.Get()));
}

void ExchangeTest::SetUp()
{
    if (GetParam() == Road::IN_PROCESS) {
        ASSERT_TRUE(Host::AbilityManager::Get()->AddSystemAbility(FAKE_SERVICE_ID, service));
        return;
    }
    static const PrivateFolder folder;
    server_ = std::make_unique<Host::AbilityServer>(FAKE_SERVICE_ID, service);
    ASSERT_TRUE(server_->Start());
}

void ExchangeTest::TearDown()
{
    server_.reset();
    Host::AbilityManager::Get()->RemoveSystemAbility(FAKE_SERVICE_ID);
}

sptr<IRemoteObject> ExchangeTest::Load()
{
    return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->LoadSystemAbility(FAKE_SERVICE_ID, 4);
}

std::string RoadName(const ::testing::TestParamInfo<Road>& road)
{
    return road.param == Road::IN_PROCESS ? "InProcess" : "Socket";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
