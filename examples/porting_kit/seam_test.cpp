// SPDX-License-Identifier: Apache-2.0
// What the library relies on in process, whichever platform is under it: parcels, owners, the registry of proxies.
#include <gtest/gtest.h>

#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/parcels.h"
#include "varn/message_parcel.h"
#include "varn/remote_broker.h"
#include "varn/remote_proxy.h"
#include "varn/remote_stub.h"

namespace VARN {
namespace {

struct Point : Parcelable {
    bool Marshalling(Parcel& parcel) const override { return parcel.WriteInt32(x) && parcel.WriteInt32(y); }
    static Point* Unmarshalling(Parcel& parcel)
    {
        auto point = std::make_unique<Point>();
        return parcel.ReadInt32(point->x) && parcel.ReadInt32(point->y) ? point.release() : nullptr;
    }
    int32_t x = 7;
    int32_t y = 8;
};

TEST(ParcelTest, ValuesComeBackInTheirOrder)
{
    // Long enough to leave the parcel's own bytes, with a string whose zero bytes count.
    Parcel parcel;
    const std::string text(70000, '\0');
    const std::u16string wide(u"\xD83D\xDE00");
    ASSERT_TRUE(parcel.WriteInt64(INT64_MIN) && parcel.WriteString(text) && parcel.WriteString16(wide));
    ASSERT_TRUE(parcel.WriteBool(true) && parcel.WriteInt32(2));
    EXPECT_EQ(INT64_MIN, parcel.ReadInt64());
    EXPECT_EQ(text, parcel.ReadString());
    EXPECT_EQ(wide, parcel.ReadString16());
    EXPECT_TRUE(parcel.ReadBool());
    EXPECT_TRUE(parcel.ReadBool());  // anything but 0
    EXPECT_EQ(0U, parcel.GetReadableBytes());
}

TEST(ParcelTest, FailedWriteLeavesTheParcelAndWhatAMarshallingWroteBefore)
{
    Parcel parcel;
    const Point point;
    ASSERT_TRUE(parcel.SetMaxCapacity(8));
    EXPECT_FALSE(parcel.WriteParcelable(&point));
    EXPECT_FALSE(parcel.WriteInt32(1));
    EXPECT_FALSE(parcel.WriteString("x"));
    EXPECT_FALSE(parcel.WriteParcelable(nullptr));
    EXPECT_EQ(1, parcel.ReadInt32());
    EXPECT_EQ(7, parcel.ReadInt32());
    EXPECT_EQ(0U, parcel.GetReadableBytes());
}

TEST(ParcelTest, WriteThatEndsAtTheCapacitySucceeds)
{
    for (const size_t before : {size_t{0}, size_t{3000}}) {
        Parcel parcel;
        ASSERT_TRUE(parcel.WriteString(std::string(before, 'x')));
        const size_t size = parcel.GetDataSize();
        ASSERT_TRUE(parcel.SetMaxCapacity(size + 11));
        EXPECT_FALSE(parcel.WriteString("abcd"));
        EXPECT_FALSE(parcel.SetMaxCapacity(size - 1));
        EXPECT_EQ(size, parcel.GetDataSize());
        ASSERT_TRUE(parcel.SetMaxCapacity(size + 12));
        EXPECT_TRUE(parcel.WriteString("abcd"));
        EXPECT_FALSE(parcel.WriteBool(true));
    }
}

TEST(ParcelTest, PresenceOtherThanZeroReadsAValue)
{
    Parcel parcel;
    ASSERT_TRUE(PutWords(parcel, {-5, 7, 8}));
    ASSERT_TRUE(parcel.WriteParcelable(nullptr));
    ASSERT_TRUE(PutWords(parcel, {1, 3}));
    const sptr<Point> point = parcel.ReadParcelable<Point>();
    ASSERT_NE(nullptr, point);
    EXPECT_EQ(1, point->StrongCount());
    EXPECT_EQ(7, point->x);
    EXPECT_EQ(8, point->y);
    // Absent, then announced but not whole (what could be read is consumed), then nothing there.
    for (const size_t left : {8U, 0U, 0U}) {
        EXPECT_EQ(nullptr, parcel.ReadParcelable<Point>());
        EXPECT_EQ(left, parcel.GetReadableBytes());
    }
    EXPECT_FALSE(parcel.ReadBool());
    EXPECT_EQ(0, parcel.ReadInt32());
}

TEST(ParcelTest, TokenAndOptionKeepTheirValues)
{
    MessageParcel parcel;
    EXPECT_TRUE(parcel.WriteInterfaceToken(u"a.b.C"));
    EXPECT_EQ(u"a.b.C", parcel.ReadInterfaceToken());
    EXPECT_EQ(u"", parcel.ReadInterfaceToken());
    EXPECT_EQ(MessageOption::TF_SYNC, MessageOption().GetFlags());
    EXPECT_EQ(8, MessageOption().GetWaitTime());
    EXPECT_EQ(3, MessageOption(3, 2).GetFlags());
    EXPECT_EQ(2, MessageOption(3, 2).GetWaitTime());
    EXPECT_EQ(8, MessageOption(0, 0).GetWaitTime());
}

struct Left : virtual RefBase {};

struct Counted : Left, virtual RefBase {
    explicit Counted(int* count) : deaths(count) {}
    ~Counted() override { ++*deaths; }
    int* deaths;
};

TEST(RefBaseTest, LastReleaseDestroysThroughTheBaseAndACopyHasOwnersOfItsOwn)
{
    int deaths = 0;
    sptr<Counted> object(new Counted(&deaths));
    sptr<RefBase> base = object;
    sptr<const Left> left(object);
    EXPECT_EQ(3, object->StrongCount());
    EXPECT_TRUE(base == object);
    EXPECT_TRUE(left == object);
    EXPECT_TRUE(object != nullptr);
    EXPECT_TRUE(nullptr != object);
    const sptr<Counted> copy(new Counted(*object));
    EXPECT_EQ(1, copy->StrongCount());
    *copy = *object;
    EXPECT_EQ(1, copy->StrongCount());
    EXPECT_EQ(3, object->StrongCount());
    object = nullptr;
    left = sptr<const Left>();
    EXPECT_EQ(1, base->StrongCount());
    EXPECT_EQ(0, deaths);
    base = sptr<RefBase>(std::move(object));
    EXPECT_EQ(1, deaths);
    EXPECT_FALSE(base);
}

TEST(RefBaseTest, ManyThreadsDestroyItOnce)
{
    int deaths = 0;
    sptr<Counted> object(new Counted(&deaths));
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.push_back(std::async(std::launch::async, [mine = object]() mutable {
            for (int round = 0; round < 10000; ++round) {
                const sptr<RefBase> copy = mine;
            }
            mine = nullptr;
        }));
    }
    object = nullptr;
    threads.clear();  // waits for them
    EXPECT_EQ(1, deaths);
}

struct Greeter : IRemoteBroker {
    VARN_DECLARE_INTERFACE_DESCRIPTOR(u"test.Greeter")
};

struct GreeterProxy : IRemoteProxy<Greeter> {
    using IRemoteProxy<Greeter>::IRemoteProxy;
};

struct GreeterStub : IRemoteStub<Greeter> {
    GreeterStub() : IRemoteStub<Greeter>(true) {}
};

TEST(BrokerTest, DelegatorRegistersWhileItExists)
{
    BrokerRegistration& registry = BrokerRegistration::Get();
    const sptr<GreeterStub> stub(new GreeterStub);
    EXPECT_EQ(nullptr, registry.NewInstance(Greeter::GetDescriptor(), stub));
    {
        const BrokerDelegator<GreeterProxy> delegator;
        // A second one for the same interface is refused, and its end does not take the first one's entry away.
        std::optional<BrokerDelegator<GreeterProxy>> second(std::in_place);
        second.reset();
        const sptr<IRemoteBroker> broker = registry.NewInstance(Greeter::GetDescriptor(), stub);
        // A proxy even for an object of this process.
        ASSERT_NE(nullptr, dynamic_cast<GreeterProxy*>(broker.Get()));
        EXPECT_EQ(stub, broker->AsObject());
        EXPECT_EQ(nullptr, registry.NewInstance(Greeter::GetDescriptor(), nullptr)->AsObject());
    }
    EXPECT_EQ(nullptr, registry.NewInstance(Greeter::GetDescriptor(), stub));
    EXPECT_EQ(1, stub->StrongCount());
}

TEST(BrokerTest, RegistryRefusesWhatCannotBeUsed)
{
    BrokerRegistration& registry = BrokerRegistration::Get();
    const auto nothing = [](const sptr<IRemoteObject>&) { return sptr<IRemoteBroker>(); };
    EXPECT_FALSE(registry.Register(u"", nothing, nullptr));
    EXPECT_FALSE(registry.Register(u"x", nullptr, nullptr));
    EXPECT_TRUE(registry.Register(u"x", nothing, nullptr));
    EXPECT_FALSE(registry.Register(u"x", nothing, nullptr));
    EXPECT_EQ(nullptr, registry.NewInstance(u"x", sptr<GreeterStub>(new GreeterStub)));
    registry.Unregister(u"x");
    registry.Unregister(u"x");
}

TEST(BrokerTest, StubIsObjectAndInterface)
{
    const sptr<GreeterStub> stub(new GreeterStub);
    EXPECT_EQ(stub, stub->AsObject());
    EXPECT_EQ(stub, stub->AsInterface());
    EXPECT_FALSE(stub->IsProxyObject());
    EXPECT_FALSE(stub->IsObjectDead());
    EXPECT_EQ(Greeter::GetDescriptor(), stub->GetObjectDescriptor());
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    EXPECT_EQ(IPC_UNKNOWN_REQUEST, stub->SendRequest(1, data, reply, option));
}

}  // namespace
}  // namespace VARN
