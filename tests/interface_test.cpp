// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/exchange.h"
#include "support/log_capture.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

using Intf = SecurityPrivacyServiceIntf;

TEST(Interface, CodesHaveTheirNamesAndOthersNone)
{
    for (const Operation& operation : Operations()) {
        EXPECT_EQ(operation.codeName, MessageCode::ToString(operation.code));
    }
    for (const uint32_t code : {0U, 6U, 7U, 10U, 14U, 4294967295U}) {
        EXPECT_EQ("UNKNOWN", MessageCode::ToString(code)) << code;
    }
}

TEST(Interface, DescriptorIsTheOneThatRunningProcessesUse)
{
    const std::u16string descriptor = u"varn.appsecurityprivacy.securityprivacyserver.SecurityPrivacyServiceIntf";
    EXPECT_EQ(descriptor, Intf::GetDescriptor());
    EXPECT_EQ(72U, Intf::GetDescriptor().size());
}

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
    const intptr_t first = Slot(&Intf::GetAppPermissionGroupInfosByApp);
    const std::vector<intptr_t> slots = {Slot(&Intf::GetAppPermissionGroupInfosByPermission),
                                         Slot(&Intf::SetAppPermissionGroupCheckedState),
                                         Slot(&Intf::GetPermissionUsageSummary),
                                         Slot(&Intf::GetPermissionUsageTimeline),
                                         Slot(&Intf::GTokenPolicyAddPolicy),
                                         Slot(&Intf::GTokenPolicyGetPolicy),
                                         Slot(&Intf::GTokenPolicyRemovePolicy)};
    for (size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(first + 1 + static_cast<intptr_t>(i), slots[i]) << i;
    }
    EXPECT_EQ(Slot(&IRemoteBroker::AsObject) + 1, first);
}

class Dispatcher : public ::testing::Test {
protected:
    // Hands a request with only a token to the stub.
    int32_t Dispatch(uint32_t code, const std::u16string& written)
    {
        MessageParcel data;
        EXPECT_TRUE(data.WriteInterfaceToken(written));
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

    const std::u16string token = Intf::GetDescriptor();
    const sptr<FakeService> service{new FakeService()};
};

TEST_F(Dispatcher, WrongTokensAreRefusedBeforeAnythingIsAsked)
{
    std::vector<std::u16string> tokens = {u"", token + u"x", token.substr(1), token.substr(0, 71), token + u'\0'};
    for (size_t i = 0; i < token.size(); ++i) {
        tokens.push_back(token);
        tokens.back()[i] ^= 0x100;
    }
    const std::vector<std::string> expected = {
        Line(DEBUG, "OnRemoteRequest", "called with messageCode=13"),
        Line(ERROR, "OnRemoteRequest", "ReadInterfaceToken not equal to GetDescriptor, someone is attacking you.")};
    for (const std::u16string& wrong : tokens) {
        LogCapture log;
        EXPECT_EQ(1, Dispatch(13, wrong));
        EXPECT_EQ(Joined(expected), Joined(log.Lines()));
    }
    MessageParcel empty;
    EXPECT_EQ(1, Dispatch(13, empty));
    MessageParcel narrow;
    EXPECT_TRUE(narrow.WriteString("varn.appsecurityprivacy.securityprivacyserver.SecurityPrivacyServiceIntf"));
    EXPECT_EQ(1, Dispatch(13, narrow));
    EXPECT_TRUE(service->AccessChecks().empty());
}

TEST_F(Dispatcher, AccessIsCheckedBeforeTheCodeIsLookedUp)
{
    const std::vector<uint32_t> unknown = {0, 6, 7, 10, 14, 4294967295U};
    for (const uint32_t code : unknown) {
        LogCapture log;
        EXPECT_EQ(4, Dispatch(code, token));
        const std::string number = std::to_string(code);
        EXPECT_EQ(Joined(DispatchLines(code) +
                         std::vector{Line(ERROR, "OnRemoteRequest", "messageCode=" + number + " not found.")}),
                  Joined(log.Lines()));
        service->SetRefused({code});
        log.Clear();
        EXPECT_EQ(1, Dispatch(code, token));
        EXPECT_EQ(Joined(DispatchLines(code) +
                         std::vector{Line(ERROR, "OnRemoteRequest",
                                          "messageCode=" + number + " messageCodeStr='UNKNOWN' forbidden access.")}),
                  Joined(log.Lines()));
    }
    EXPECT_EQ(2 * unknown.size(), service->AccessChecks().size());
}

TEST_F(Dispatcher, HandlersStatusIsPassedOnAfterTheDoneLine)
{
    LogCapture log;
    EXPECT_EQ(5, Dispatch(3, token));
    EXPECT_EQ(Joined(DispatchLines(3) + std::vector{Line(ERROR, "HandleSetAppPermissionGroupCheckedState",
                                                         "newCheckedStatePtr is nullptr, please check."),
                                                    DoneLine(3, 5)}),
              Joined(log.Lines()));
}

TEST(Stub, IsItsOwnObjectAndInterface)
{
    const sptr<FakeService> service(new FakeService());
    EXPECT_EQ(service->AsObject().Get(), static_cast<IRemoteObject*>(service.Get()));
    EXPECT_EQ(service->AsInterface().Get(), static_cast<IRemoteBroker*>(service.Get()));
    EXPECT_FALSE(service->IsProxyObject());
    EXPECT_EQ(Intf::GetDescriptor(), service->GetObjectDescriptor());
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
