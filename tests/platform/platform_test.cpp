// SPDX-License-Identifier: Apache-2.0
// What only this platform promises: the bytes of its parcels, and an order of destruction. A program of its own:
// nothing may touch the registry before main.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "support/parcels.h"
#include "varn/remote_broker.h"
#include "varn/remote_proxy.h"

namespace VARN {
namespace {

using namespace std::string_literals;
using Words = std::vector<int32_t>;

// From none of these words a value can be read: its target and the cursor stay.
template <class T, class Read>
void ExpectUnread(const T& kept, Read read, const std::vector<Words>& cases)
{
    for (const Words& words : cases) {
        SCOPED_TRACE(testing::PrintToString(words));
        Parcel parcel;
        PutWords(parcel, words);
        T value = kept;
        EXPECT_FALSE(read(parcel, value));
        EXPECT_EQ(kept, value);
        EXPECT_EQ(words, TakeWords(parcel));
    }
}

TEST(ParcelLayoutTest, HostileBytesAreNotRead)
{
    ExpectUnread(int64_t{5}, [](Parcel& p, int64_t& value) { return p.ReadInt64(value); }, {{}, {1}});
    // Nothing or a length alone; lengths that are negative, the greatest, one too long; no terminator.
    ExpectUnread("kept"s, [](Parcel& p, std::string& value) { return p.ReadString(value); },
                 {{}, {0}, {-1, 0}, {INT32_MIN, 0}, {INT32_MAX, 0, 0}, {4, 0x64636261}, {3, 0x64636261}, {1, 0x6261}});
    // The same in units, and a length whose bytes are more than 32 bits hold.
    ExpectUnread(u"kept"s, [](Parcel& p, std::u16string& value) { return p.ReadString16(value); },
                 {{0}, {-1, 0, 0}, {INT32_MAX, 0, 0}, {0x40000000, 0, 0}, {2, 0x00620061}, {1, 0x00620061}});
}

struct Greeter : IRemoteBroker {
    VARN_DECLARE_INTERFACE_DESCRIPTOR(u"test.Greeter")
};

// Made before the registry and destroyed after it: its delegator must then leave the registry alone.
struct OutlivesRegistry {
    ~OutlivesRegistry()
    {
        if (delegator && !delegator->IsUnloaded()) {
            std::fputs("the registry went without a word\n", stderr);
            std::_Exit(1);
        }
    }
    std::optional<BrokerDelegator<IRemoteProxy<Greeter>>> delegator;
} outlivesRegistry;

TEST(RegistryEndTest, DelegatorMayOutliveTheRegistry)
{
    EXPECT_FALSE(outlivesRegistry.delegator.emplace().IsUnloaded());
}

}  // namespace
}  // namespace VARN
