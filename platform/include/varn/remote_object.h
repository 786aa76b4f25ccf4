// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "varn/export.h"
#include "varn/message_parcel.h"
#include "varn/ref_base.h"

namespace VARN {

// What `IRemoteObject::SendRequest` reports when the platform, not the service, ended a request. A service's own
// statuses pass through unchanged, so it should keep away from these. Never renumber: they cross the socket.
enum IpcCode : int32_t {
    IPC_OK = 0,
    IPC_DEAD_OBJECT = -2,      // no process serves the object, or its process went away before it had answered
    IPC_TIMED_OUT = -3,        // the wait time was over before the reply was there
    IPC_PROTOCOL_ERROR = -4,   // the other side does not speak the protocol; the connection was dropped
    IPC_TOO_LARGE = -5,        // a message is too long, or a service had no room for its reply
    IPC_NO_MEMORY = -6,        // memory ran out
    IPC_SERVICE_FAILED = -7,   // an exception left the service's operation
    IPC_UNKNOWN_REQUEST = -8,  // the object does not handle the request code
};

// Something that answers requests: an object of this process (a stub) or the stand-in for one in another process.
//
// Thread safety: every operation may be called from several threads at once.
class VARN_API IRemoteObject : public virtual RefBase {
public:
    ~IRemoteObject() override;

    // Sends `data` and waits for the answer in `reply`, which should be empty. Returns 0, the status that the service
    // returned, or an `IpcCode`. After anything but 0 the reply holds what the service wrote, if it answered at all.
    // A request is sent at most once: after a failure it may or may not have been executed.
    virtual int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) = 0;

    // Whether the object stands in for one of another process.
    virtual bool IsProxyObject() const;

    // Whether the object is known never to answer again. False is no promise: the other process may die at any time.
    virtual bool IsObjectDead() const;
};

}  // namespace VARN
