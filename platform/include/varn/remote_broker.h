// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "varn/export.h"
#include "varn/ref_base.h"
#include "varn/remote_object.h"

namespace VARN {

// The base of every interface between a client and a service. Its proxies and its stubs both implement it.
class VARN_API IRemoteBroker : public virtual RefBase {
public:
    ~IRemoteBroker() override;

    // The object that requests go to: the remote one for a proxy, the stub itself for a stub.
    virtual sptr<IRemoteObject> AsObject() = 0;
};

// Gives an interface its static `GetDescriptor()`: the name by which requests, stubs and the registry know it. It
// stands in the public part of the class. The string is made on first use, so a static object that asks for it in its
// constructor may still use it in its destructor.
#define VARN_DECLARE_INTERFACE_DESCRIPTOR(DESCRIPTOR)       \
    static const std::u16string& GetDescriptor()            \
    {                                                       \
        static const std::u16string descriptor{DESCRIPTOR}; \
        return descriptor;                                  \
    }

// What a delegator shows to the registry: where to leave word that the registry is gone.
class VARN_API BrokerDelegatorBase {
public:
    BrokerDelegatorBase() noexcept = default;
    BrokerDelegatorBase(const BrokerDelegatorBase&) = delete;
    BrokerDelegatorBase& operator=(const BrokerDelegatorBase&) = delete;
    virtual ~BrokerDelegatorBase();

    // Whether the registry was destroyed first: then it must not be touched any more.
    // Acquire, with the registry's release: what it did before it went is done.
    bool IsUnloaded() const noexcept { return isUnloaded_.load(std::memory_order_acquire); }
    void SetUnloaded() noexcept { isUnloaded_.store(true, std::memory_order_release); }

private:
    std::atomic<bool> isUnloaded_{false};
};

// The registry of proxy makers of this process, keyed by interface descriptor.
//
// Thread safety: every operation may be called from any thread. A maker runs under the registry's lock, so that the
// library it belongs to cannot be unloaded under it: it must neither call the registry nor fork.
class VARN_API BrokerRegistration {
public:
    // Makes a proxy for an object, or returns null.
    using Creator = std::function<sptr<IRemoteBroker>(const sptr<IRemoteObject>& object)>;

    // The registry. It lives until static destruction; then every delegator that is still registered learns of it.
    static BrokerRegistration& Get();

    BrokerRegistration(const BrokerRegistration&) = delete;
    BrokerRegistration& operator=(const BrokerRegistration&) = delete;

    // Registers `creator`. False, and no change, when the descriptor or the creator is empty or the descriptor is
    // taken. `delegator` may be null; if not, it must stay until `Unregister` or the end of the registry.
    bool Register(const std::u16string& descriptor, const Creator& creator, BrokerDelegatorBase* delegator);

    // Forgets the creator. No one makes a proxy with it once this returns. Unknown descriptors are ignored.
    void Unregister(const std::u16string& descriptor);

    // Runs the creator that is registered for `descriptor`, for an object of this process just as for a remote one, so
    // that a request takes the same road through proxy and stub; also for a null one, whose proxy reports that it has
    // none. Null when nothing is registered or the creator gives null.
    sptr<IRemoteBroker> NewInstance(const std::u16string& descriptor, const sptr<IRemoteObject>& object);

private:
    struct Entry {
        std::u16string descriptor;
        Creator creator;
        BrokerDelegatorBase* delegator;
    };

    BrokerRegistration() = default;
    ~BrokerRegistration();

    // Guarded by the registry's lock. So few that looking at each beats hashing a long name.
    std::vector<Entry> entries_;
};

// Registers `Proxy` as the maker of proxies for its interface while it exists. Each proxy class has one as a static
// member: registration at load of the library, unregistration at unload.
template <class Proxy>
class BrokerDelegator final : public BrokerDelegatorBase {
public:
    BrokerDelegator()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const std::u16string descriptor = Proxy::GetDescriptor();
        if (BrokerRegistration::Get().Register(descriptor, &Create, this)) {
            descriptor_ = descriptor;
        }
    }

    ~BrokerDelegator() override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!IsUnloaded() && !descriptor_.empty()) {
            BrokerRegistration::Get().Unregister(descriptor_);
        }
    }

private:
    static sptr<IRemoteBroker> Create(const sptr<IRemoteObject>& object)
    {
        return sptr<IRemoteBroker>(new (std::nothrow) Proxy(object));
    }

    std::mutex mutex_;
    std::u16string descriptor_;  // guarded by mutex_; empty when the registration was refused
};

}  // namespace VARN
