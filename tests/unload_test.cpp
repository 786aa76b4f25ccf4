// SPDX-License-Identifier: Apache-2.0
// Not linked with the library that it loads.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "varn/remote_broker.h"
#include "varn/remote_stub.h"

namespace VARN {
namespace {

constexpr const char16_t* DESCRIPTOR = u"varn.appsecurityprivacy.securityprivacyserver.SecurityPrivacyServiceIntf";

sptr<IRemoteBroker> Cast(const sptr<IRemoteObject>& object)
{
    return BrokerRegistration::Get().NewInstance(DESCRIPTOR, object);
}

TEST(Library, LeavesNothingBehindWhenItIsUnloaded)
{
    const sptr<IRemoteObject> object(new IPCObjectStub());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nullptr, Cast(object));
        void* library = dlopen(LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, library) << dlerror();
        EXPECT_EQ(object, Cast(object)->AsObject());
        EXPECT_EQ(0, dlclose(library));
        EXPECT_EQ(nullptr, Cast(object));
        EXPECT_EQ(nullptr, dlopen(LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD)) << "a unique symbol keeps it in memory";
    }
    EXPECT_EQ(1, object->StrongCount());
}

}  // namespace
}  // namespace VARN
