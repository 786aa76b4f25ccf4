// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <iostream>
#include <vector>

#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "security_privacy/version.h"
#include "varn/host/log_sink.h"

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

static_assert(SECURITY_PRIVACY_VERSION_MAJOR > 0 || SECURITY_PRIVACY_VERSION_MINOR >= 2);

// A program of somebody else: it calls a service and gets the service's own answer, which needs both libraries whole,
// the registration of the proxy included.
int main()
{
    VARN::Host::SetLogLevel(6);
    Testing::FakeServiceScope fake;
    Testing::FakeAnswer answer;
    answer.appPermissionGroupInfos.resize(1);
    answer.appPermissionGroupInfos[0].bundleName = "org.example.camera";
    fake.Service().SetAnswer(Testing::MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP, answer);

    std::vector<Permission::AppPermissionGroupInfo> infos;
    const int32_t result =
        SecurityPrivacyClient::GetInstance().GetAppPermissionGroupInfosByApp("org.example.camera", 100, {}, infos);
    if (result != 0 || infos.size() != 1 || infos[0].bundleName != "org.example.camera") {
        std::cerr << "the service's answer did not arrive: result " << result << ", " << infos.size() << " records\n";
        return 1;
    }
    return 0;
}
