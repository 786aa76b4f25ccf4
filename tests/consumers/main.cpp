// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <iostream>

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
    const Testing::FakeServiceScope fake;
    Testing::FakeAnswer answer;
    answer.gTokenResultWithRet.ret = 42;
    fake.Service().SetAnswer(Testing::MessageCode::GTOKEN_POLICY_GET_POLICY, answer);
    const int64_t result = SecurityPrivacyClient::GetInstance().GTokenPolicyGetPolicy("policy", {"app"}).ret;
    if (result != 42) {
        std::cerr << "the service's answer did not arrive: result " << result << "\n";
        return 1;
    }
    return 0;
}
