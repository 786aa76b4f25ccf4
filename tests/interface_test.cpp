// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/calls.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Intf = SecurityPrivacyServiceIntf;

// The place of a virtual function in its table, as the C++ ABI of Linux keeps it in a member pointer.
template <class Member>
intptr_t Slot(Member member)
{
    intptr_t place = 0;
    std::memcpy(&place, &member, sizeof(place));
    return (place - 1) / static_cast<intptr_t>(sizeof(void*));
}

TEST(Interface, OperationsKeepTheirOrderInTheVirtualTable)
{
    const std::vector<intptr_t> slots = {Slot(&IRemoteBroker::AsObject),
                                         Slot(&Intf::GetAppPermissionGroupInfosByApp),
                                         Slot(&Intf::GetAppPermissionGroupInfosByPermission),
                                         Slot(&Intf::SetAppPermissionGroupCheckedState),
                                         Slot(&Intf::GetPermissionUsageSummary),
                                         Slot(&Intf::GetPermissionUsageTimeline),
                                         Slot(&Intf::GTokenPolicyAddPolicy),
                                         Slot(&Intf::GTokenPolicyGetPolicy),
                                         Slot(&Intf::GTokenPolicyRemovePolicy)};
    for (size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(slots[0] + static_cast<intptr_t>(i), slots[i]) << i;
    }
}

TEST(Stub, RefusesWrongTokensBeforeAnythingIsAsked)
{
    const std::u16string token = Intf::GetDescriptor();
    std::vector<std::u16string> tokens = {u"", token + u"x", token.substr(1), token.substr(0, 71), token + u'\0'};
    for (size_t i = 0; i < token.size(); ++i) {
        tokens.push_back(token);
        tokens.back()[i] ^= 0x100;
    }
    const sptr<FakeService> service(new FakeService());
    for (const std::u16string& wrong : tokens) {
        const LogCapture log(ERROR);
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        Put(data, wrong);
        EXPECT_EQ(1, service->OnRemoteRequest(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, data, reply, option));
        EXPECT_EQ(0U, reply.GetDataSize());
        EXPECT_EQ(
            Line(ERROR, "OnRemoteRequest", "ReadInterfaceToken not equal to GetDescriptor, someone is attacking you."),
            log.Lines());
    }
    EXPECT_TRUE(service->AccessChecks().empty());
}

// In a process of its own: what makes proxies is registered once, when the library is loaded.
TEST(Client, YieldsZeroWhereNoProxyCanBeMade)
{
    const auto callAll = [] {
        const FakeServiceScope fake;
        BrokerRegistration::Get().Unregister(Intf::GetDescriptor());
        for (const uint32_t code : CODES) {
            const LogCapture log(ERROR);
            EXPECT_EQ(0, CallOperation(SecurityPrivacyClient::GetInstance(), code).result);
            EXPECT_EQ(0U, log.Lines().find(Line(ERROR, "WithSystemAbilityProxy",
                                                "iface_cast SA=65993 is nullptr, there is nothing we can do.")));
        }
        std::exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(callAll(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
