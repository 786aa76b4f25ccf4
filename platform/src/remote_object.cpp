// SPDX-License-Identifier: Apache-2.0
#include "varn/remote_object.h"

#include <exception>
#include <new>

#include "platform_log.h"
#include "varn/remote_stub.h"

namespace VARN {

RefBase::~RefBase() = default;

IRemoteObject::~IRemoteObject() = default;

bool IRemoteObject::IsProxyObject() const
{
    return true;
}

bool IRemoteObject::IsObjectDead() const
{
    return false;
}

IPCObjectStub::IPCObjectStub(const std::u16string& descriptor, bool serialInvoke)
    : descriptor_(descriptor), serialInvoke_(serialInvoke)
{
}

IPCObjectStub::~IPCObjectStub() = default;

int32_t IPCObjectStub::OnRemoteRequest(uint32_t /*code*/, MessageParcel& /*data*/, MessageParcel& /*reply*/,
                                       MessageOption& /*option*/)
{
    return IPC_UNKNOWN_REQUEST;
}

int32_t IPCObjectStub::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    std::unique_lock<std::recursive_mutex> serial(serialMutex_, std::defer_lock);
    if (serialInvoke_) {
        serial.lock();
    }
    // Nothing that an operation throws may end the service or unwind into a transport.
    try {
        return OnRemoteRequest(code, data, reply, option);
    } catch (const std::bad_alloc&) {
        PLATFORM_ERROR("request %u failed: out of memory", code);
        return IPC_NO_MEMORY;
    } catch (const std::exception& exception) {
        PLATFORM_ERROR("request %u failed: an exception left the service: %s", code, exception.what());
    } catch (...) {
        PLATFORM_ERROR("request %u failed: an exception of unknown type left the service", code);
    }
    return IPC_SERVICE_FAILED;
}

bool IPCObjectStub::IsProxyObject() const
{
    return false;
}

}  // namespace VARN
