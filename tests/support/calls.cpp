// SPDX-License-Identifier: Apache-2.0
#include "support/calls.h"

#include <gtest/gtest.h>

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

ServedFake::ServedFake(bool isBehindSocket)
{
    if (isBehindSocket) {
        AbilityFolder();
        EXPECT_TRUE(server_.emplace(FAKE_SERVICE_ID, service).Start());
    } else {
        EXPECT_TRUE(Host::AbilityManager::Get()->AddSystemAbility(FAKE_SERVICE_ID, service));
    }
}

ServedFake::~ServedFake()
{
    Host::AbilityManager::Get()->RemoveSystemAbility(FAKE_SERVICE_ID);
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
