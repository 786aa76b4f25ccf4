// SPDX-License-Identifier: Apache-2.0
// An application's unit test: the service is a fake in the test's own process.
#include <gtest/gtest.h>

#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;
using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing;

// The application's own code.
bool BlockCamera(const std::string& bundleName, int32_t uid)
{
    Permission::CheckedStateParameter parameter;
    parameter.checkedState = "deny";
    bool isChanged = false;  // stays so when there is no service, though the result is then 0
    const int32_t result = SecurityPrivacyClient::GetInstance().SetAppPermissionGroupCheckedState(
        bundleName, uid, "CAMERA", parameter, isChanged);
    return result == 0 && isChanged;
}

TEST(BlockCamera, ChoosesDeny)
{
    const FakeServiceScope fake;
    FakeAnswer answer;
    answer.returns = true;
    fake.Service().SetAnswer(MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE, answer);
    EXPECT_TRUE(BlockCamera("com.example.maps", 10010017));
    EXPECT_EQ("deny", fake.Service().Calls().at(0).checkedStateParameter.checkedState);
}

TEST(BlockCamera, FailsWithoutAService)
{
    const FakeServiceScope fake;
    fake.Manager().SetPresence(FakePresence::ABSENT);
    EXPECT_FALSE(BlockCamera("com.example.maps", 10010017));
}
