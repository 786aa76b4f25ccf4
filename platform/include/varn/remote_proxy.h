// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/export.h"
#include "varn/ref_base.h"
#include "varn/remote_broker.h"
#include "varn/remote_object.h"

namespace VARN {

// Holds the object that a proxy speaks to. It never changes, so it may be read from any thread.
class VARN_API PeerHolder {
public:
    PeerHolder(const PeerHolder&) = delete;
    PeerHolder& operator=(const PeerHolder&) = delete;

protected:
    // `object` may be null: then there is no service to speak to.
    explicit PeerHolder(const sptr<IRemoteObject>& object) noexcept : object_(object) {}
    ~PeerHolder() = default;

    // The object; null when the proxy was made without one.
    sptr<IRemoteObject> Remote() const noexcept { return object_; }

private:
    const sptr<IRemoteObject> object_;
};

// The base of an interface's proxy: the interface, spoken to a remote object.
template <class Intf>
class IRemoteProxy : public PeerHolder, public Intf {
public:
    // `object` is what answers the requests.
    explicit IRemoteProxy(const sptr<IRemoteObject>& object) noexcept : PeerHolder(object) {}
    ~IRemoteProxy() override = default;

    sptr<IRemoteObject> AsObject() override { return Remote(); }
};

}  // namespace VARN
