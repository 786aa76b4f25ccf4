// SPDX-License-Identifier: Apache-2.0
// The smallest client: which permission groups does an app have?
#include <cstdio>

#include "security_privacy/security_privacy_client.h"

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

int main(int argc, char** argv)
{
    const char* bundleName = argc > 1 ? argv[1] : "com.example.camera";
    std::vector<Permission::AppPermissionGroupInfo> groups;
    const int32_t result =
        SecurityPrivacyClient::GetInstance().GetAppPermissionGroupInfosByApp(bundleName, 100, {}, groups);
    for (const auto& group : groups) {
        std::printf("%s: %s\n", group.permissionGroup.c_str(), group.checkedState.c_str());
    }
    std::printf("result %d, %zu groups\n", result, groups.size());
    return result == 0 && !groups.empty() ? 0 : 1;
}
