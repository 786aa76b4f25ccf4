// SPDX-License-Identifier: Apache-2.0
#include "support/calls.h"

#include <cstdlib>
#include <filesystem>

#include "varn/host/ability_manager.h"
#include "varn/remote_broker.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

sptr<SecurityPrivacyServiceIntf> ProxyOver(const sptr<IRemoteObject>& object)
{
    const sptr<IRemoteBroker> broker =
        BrokerRegistration::Get().NewInstance(SecurityPrivacyServiceIntf::GetDescriptor(), object);
    // A cast that names the type brings the proxy along from a static library.
    return sptr<SecurityPrivacyServiceIntf>(dynamic_cast<SecurityPrivacyServiceIntf*>(broker.Get()));
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
