// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "varn/export.h"
#include "varn/remote_broker.h"
#include "varn/remote_object.h"

namespace VARN {

// An object of this process that answers requests. A service derives from it (through `IRemoteStub`) and overrides
// `OnRemoteRequest`; requests arrive by `SendRequest`, from this process or from a server that reads them off a socket.
class VARN_API IPCObjectStub : public IRemoteObject {
public:
    // With serial invocation one `OnRemoteRequest` runs at a time (a request that an operation sends to its own object
    // on the same thread is let in); without it as many run as there are callers. A child that is forked while one runs
    // must not send to a serial object of its parent: it would wait for ever.
    explicit IPCObjectStub(const std::u16string& descriptor = std::u16string(), bool serialInvoke = false);
    ~IPCObjectStub() override;

    // Handles one request: reads `data`, writes `reply`, returns 0 or a status that becomes the sender's result. Called
    // on any thread, see the constructor. The default knows no request and returns `IPC_UNKNOWN_REQUEST`.
    virtual int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option);

    // Calls `OnRemoteRequest` and returns what it returns. An exception that leaves it is caught and logged; the status
    // is then `IPC_SERVICE_FAILED`, or `IPC_NO_MEMORY` for a failed allocation.
    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    // False: the object is here.
    bool IsProxyObject() const override;

    // The descriptor given to the constructor.
    const std::u16string& GetObjectDescriptor() const noexcept { return descriptor_; }

private:
    const std::u16string descriptor_;
    const bool serialInvoke_;
    std::recursive_mutex serialMutex_;  // held around OnRemoteRequest when serialInvoke_
};

// The base of an interface's stub: an object that answers requests and the interface that its operations implement.
template <class Intf>
class IRemoteStub : public IPCObjectStub, public Intf {
public:
    // What `serialInvoke` does, see IPCObjectStub.
    explicit IRemoteStub(bool serialInvoke = false) : IPCObjectStub(Intf::GetDescriptor(), serialInvoke) {}
    ~IRemoteStub() override = default;

    // The stub itself, as the object that requests go to.
    sptr<IRemoteObject> AsObject() override { return sptr<IRemoteObject>(this); }

    // The stub itself, as the interface.
    virtual sptr<IRemoteBroker> AsInterface() { return sptr<IRemoteBroker>(this); }
};

}  // namespace VARN
