// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
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

class Dispatcher : public ::testing::Test {
protected:
    // Hands a request with only a token to the stub.
    int32_t Dispatch(uint32_t code, const std::u16string& token = Intf::GetDescriptor())
    {
        MessageParcel data;
        EXPECT_TRUE(data.WriteInterfaceToken(token));
        return Dispatch(code, data);
    }
    int32_t Dispatch(uint32_t code, MessageParcel& data)
    {
        MessageParcel reply;
        MessageOption option;
        const int32_t status = service->OnRemoteRequest(code, data, reply, option);
        EXPECT_EQ(0U, reply.GetDataSize());
        return status;
    }

    const sptr<FakeService> service{new FakeService()};
};

TEST_F(Dispatcher, WrongTokensAreRefusedBeforeAnythingIsAsked)
{
    const std::u16string token = Intf::GetDescriptor();
    std::vector<std::u16string> tokens = {u"", token + u"x", token.substr(1), token.substr(0, 71), token + u'\0'};
    for (size_t i = 0; i < token.size(); ++i) {
        tokens.push_back(token);
        tokens.back()[i] ^= 0x100;
    }
    const std::string expected =
        Line(DEBUG, "OnRemoteRequest", "called with messageCode=13") +
        Line(ERROR, "OnRemoteRequest", "ReadInterfaceToken not equal to GetDescriptor, someone is attacking you.");
    for (const std::u16string& wrong : tokens) {
        const LogCapture log;
        EXPECT_EQ(1, Dispatch(13, wrong));
        EXPECT_EQ(expected, log.Lines());
    }
    MessageParcel narrow;
    EXPECT_EQ(1, Dispatch(13, narrow));
    EXPECT_TRUE(narrow.WriteString(std::string(token.begin(), token.end())));
    EXPECT_EQ(1, Dispatch(13, narrow));
    EXPECT_TRUE(service->AccessChecks().empty());
}

TEST_F(Dispatcher, AccessIsCheckedBeforeTheCodeIsLookedUp)
{
    const std::vector<uint32_t> unknown = {0, 6, 7, 10, 14, 4294967295U};
    for (const uint32_t code : unknown) {
        LogCapture log;
        EXPECT_EQ(4, Dispatch(code));
        const std::string named = "messageCode=" + std::to_string(code);
        EXPECT_EQ(DispatchLines(code) + Line(ERROR, "OnRemoteRequest", named + " not found."), log.Lines());
        service->SetRefused({code});
        log.Clear();
        EXPECT_EQ(1, Dispatch(code));
        EXPECT_EQ(
            DispatchLines(code) + Line(ERROR, "OnRemoteRequest", named + " messageCodeStr='UNKNOWN' forbidden access."),
            log.Lines());
    }
    EXPECT_EQ(2 * unknown.size(), service->AccessChecks().size());
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
