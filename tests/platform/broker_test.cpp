// SPDX-License-Identifier: Apache-2.0
#include "varn/remote_broker.h"

#include <gtest/gtest.h>

#include <optional>

#include "varn/remote_proxy.h"
#include "varn/remote_stub.h"

namespace VARN {
namespace {

class Greeter : public IRemoteBroker {
public:
    VARN_DECLARE_INTERFACE_DESCRIPTOR(u"test.Greeter")
};

class GreeterProxy : public IRemoteProxy<Greeter> {
public:
    using IRemoteProxy<Greeter>::IRemoteProxy;
};

class GreeterStub : public IRemoteStub<Greeter> {
public:
    GreeterStub() : IRemoteStub<Greeter>(true) {}
};

TEST(BrokerTest, DelegatorRegistersWhileItExists)
{
    BrokerRegistration& registry = BrokerRegistration::Get();
    const sptr<GreeterStub> stub(new GreeterStub);
    EXPECT_EQ(registry.NewInstance(Greeter::GetDescriptor(), stub), nullptr);
    {
        const BrokerDelegator<GreeterProxy> delegator;
        // A second one for the same interface is refused, and its end does not take the first one's entry away.
        std::optional<BrokerDelegator<GreeterProxy>> second(std::in_place);
        second.reset();
        const sptr<IRemoteBroker> broker = registry.NewInstance(Greeter::GetDescriptor(), stub);
        ASSERT_NE(broker, nullptr);
        // A proxy even for an object of this process.
        EXPECT_NE(dynamic_cast<GreeterProxy*>(broker.Get()), nullptr);
        EXPECT_EQ(broker->AsObject(), stub);
        EXPECT_EQ(registry.NewInstance(Greeter::GetDescriptor(), nullptr)->AsObject(), nullptr);
    }
    EXPECT_EQ(registry.NewInstance(Greeter::GetDescriptor(), stub), nullptr);
    EXPECT_EQ(stub->StrongCount(), 1);
}

TEST(BrokerTest, RegistryRefusesWhatCannotBeUsed)
{
    BrokerRegistration& registry = BrokerRegistration::Get();
    const auto nothing = [](const sptr<IRemoteObject>&) { return sptr<IRemoteBroker>(); };
    EXPECT_FALSE(registry.Register(u"", nothing, nullptr));
    EXPECT_FALSE(registry.Register(u"x", nullptr, nullptr));
    EXPECT_TRUE(registry.Register(u"x", nothing, nullptr));
    EXPECT_FALSE(registry.Register(u"x", nothing, nullptr));
    EXPECT_EQ(registry.NewInstance(u"x", sptr<GreeterStub>(new GreeterStub)), nullptr);
    registry.Unregister(u"x");
    registry.Unregister(u"x");
}

TEST(BrokerTest, StubIsObjectAndInterface)
{
    const sptr<GreeterStub> stub(new GreeterStub);
    EXPECT_EQ(stub->AsObject(), stub);
    EXPECT_EQ(stub->AsInterface(), stub);
    EXPECT_TRUE(!stub->IsProxyObject() && !stub->IsObjectDead());
    EXPECT_EQ(stub->GetObjectDescriptor(), Greeter::GetDescriptor());
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    EXPECT_EQ(stub->SendRequest(1, data, reply, option), IPC_UNKNOWN_REQUEST);
}

}  // namespace
}  // namespace VARN
