// SPDX-License-Identifier: Apache-2.0
#include "support/calls.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "varn/host/ability_manager.h"
#include "varn/remote_broker.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

const std::vector<Operation>& Operations()
{
    static const std::vector<Operation> operations = {
        {1, "GET_APP_PERMISSION_GROUP_INFOS_BY_APP", "GetAppPermissionGroupInfosByApp", "", DEBUG,
         "ByApp start, bundleName='app', userId=-100, interestedPermissionGroups={'it's'}", "send request failed."},
        {2, "GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION", "GetAppPermissionGroupInfosByPermission", "", DEBUG,
         "ByPermission start, permissionGroup='group', userId=101", ""},
        {3, "SET_APP_PERMISSION_GROUP_CHECKED_STATE", "SetAppPermissionGroupCheckedState", "", DEBUG,
         "Set start, bundleName='app', uid=20, permissionGroup='group', checkedStateParameter=" +
             MakeCheckedStateParameter().ToString(),
         ""},
        {4, "GET_PERMISSION_USAGE_RECORD_SUMMARY", "GetPermissionUsageSummary", "", INFO,
         "GetPermissionUsageSummary called\n", "SendRequest failed."},
        {5, "GET_PERMISSION_USAGE_RECORD_TIMELINE", "GetPermissionUsageTimeline", "", INFO,
         "GetPermissionUsageTimeline called\n", "SendRequest is failed."},
        {11, "GTOKEN_POLICY_ADD_POLICY", "GTokenPolicyAddPolicy", "GTokenPolicySdkAdaptor AddPolicy called", INFO,
         "GTokenPolicyManagerProxy AddPolicy called", "SendRequest is failed."},
        {12, "GTOKEN_POLICY_GET_POLICY", "GTokenPolicyGetPolicy", "GTokenPolicySdkAdaptor GetPolicy called", INFO,
         "GTokenPolicyManagerProxy GetPolicy called", "SendRequest is failed."},
        {13, "GTOKEN_POLICY_REMOVE_POLICY", "GTokenPolicyRemovePolicy", "GTokenPolicySdkAdaptor RemovePolicy called",
         INFO, "GTokenPolicyManagerProxy RemovePolicy called", "SendRequest is failed."},
    };
    return operations;
}

const Operation& OperationOf(uint32_t code)
{
    return *std::find_if(Operations().begin(), Operations().end(),
                         [code](const Operation& operation) { return operation.code == code; });
}

std::string DispatchLines(uint32_t code)
{
    const std::string number = std::to_string(code);
    return Line(DEBUG, "OnRemoteRequest", "called with messageCode=" + number) +
           Line(DEBUG, "OnRemoteRequest",
                "called, messageCode=" + number + ", messageCodeStr='" + MessageCode::ToString(code) + "'");
}

std::string DoneLine(uint32_t code, int32_t status)
{
    return Line(DEBUG, "OnRemoteRequest",
                "done, messageCode=" + std::to_string(code) + ", messageCodeStr='" + MessageCode::ToString(code) +
                    "', ipcCode=" + std::to_string(status));
}

sptr<SecurityPrivacyServiceIntf> ProxyOver(const sptr<IRemoteObject>& object)
{
    const sptr<IRemoteBroker> broker =
        BrokerRegistration::Get().NewInstance(SecurityPrivacyServiceIntf::GetDescriptor(), object);
    return sptr<SecurityPrivacyServiceIntf>(static_cast<SecurityPrivacyServiceIntf*>(broker.Get()));
}

const std::string& AbilityFolder()
{
    struct Folder {
        Folder() { ::setenv("VARN_ABILITY_DIR", ::mkdtemp(path.data()), 1); }
        ~Folder() { std::filesystem::remove_all(path); }
        std::string path = (std::filesystem::temp_directory_path() / "calls.XXXXXX").string();
    };
    static const Folder folder;
    return folder.path;
}

void CallTest::SetUp()
{
    if (GetParam() == Road::IN_PROCESS) {
        ASSERT_TRUE(Host::AbilityManager::Get()->AddSystemAbility(FAKE_SERVICE_ID, service));
        return;
    }
    AbilityFolder();
    server_ = std::make_unique<Host::AbilityServer>(FAKE_SERVICE_ID, service);
    ASSERT_TRUE(server_->Start());
}

void CallTest::TearDown()
{
    server_.reset();
    Host::AbilityManager::Get()->RemoveSystemAbility(FAKE_SERVICE_ID);
}

sptr<IRemoteObject> CallTest::Load()
{
    return SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager()->LoadSystemAbility(FAKE_SERVICE_ID, 4);
}

std::string RoadName(const ::testing::TestParamInfo<Road>& road)
{
    return road.param == Road::IN_PROCESS ? "InProcess" : "Socket";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
