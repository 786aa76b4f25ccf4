// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "varn/remote_broker.h"
#include "varn/remote_proxy.h"

// A program of its own: nothing may touch the registry before main.
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

// Made before the registry and destroyed after it: its delegator must then leave the registry alone.
struct OutlivesRegistry {
    ~OutlivesRegistry()
    {
        if (delegator && !delegator->IsUnloaded()) {
            std::fputs("the registry went without a word\n", stderr);
            std::_Exit(1);
        }
    }
    std::unique_ptr<BrokerDelegator<GreeterProxy>> delegator;
} outlivesRegistry;

TEST(RegistryEndTest, DelegatorMayOutliveTheRegistry)
{
    outlivesRegistry.delegator = std::make_unique<BrokerDelegator<GreeterProxy>>();
    EXPECT_FALSE(outlivesRegistry.delegator->IsUnloaded());
}

}  // namespace
}  // namespace VARN
