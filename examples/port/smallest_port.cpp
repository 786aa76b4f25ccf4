// SPDX-License-Identifier: Apache-2.0
// The smallest port: services and clients of one process. A request is copied, a thread of its own runs it, and the
// reply is copied back. A port to another system sends the same bytes elsewhere, and bounds its threads.
#include "smallest_port.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "parcel_buffer.h"
#include "platform_hooks.h"

namespace VARN {
namespace {

// Only the bytes travel: the two sides never share a parcel.
bool Copy(const Parcel& from, Parcel& to)
{
    uint8_t* const space = ParcelBuffer::Space(to, from.GetDataSize());
    if (space != nullptr) {
        std::memcpy(space, ParcelBuffer::Data(from), from.GetDataSize());
        ParcelBuffer::Commit(to, from.GetDataSize());
    }
    return space != nullptr;
}

// What a client holds: the service's stand-in.
struct Remote final : IRemoteObject {
    explicit Remote(const sptr<IPCObjectStub>& itsStub) : stub(itsStub) {}
    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

    std::mutex mutex;          // held by the request that runs: a service has one at a time
    sptr<IPCObjectStub> stub;  // null: removed
};

// The parcels of one request, which its sender may leave to the thread.
struct Request {
    MessageParcel data;
    MessageParcel reply;
};

struct Port final : ISystemAbilityManager {
    sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeoutSeconds) override
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto isHere = [&] { return services.count(systemAbilityId) != 0; };
        const bool found = changed.wait_for(lock, std::chrono::seconds(timeoutSeconds), isHere);
        return found ? sptr<IRemoteObject>(services[systemAbilityId]) : nullptr;
    }

    std::mutex mutex;  // guards the services
    std::condition_variable changed;
    std::map<int32_t, sptr<Remote>> services;
};

// Never destroyed: a thread may outlive main.
Port& ThePort()
{
    static const auto* const port = new sptr<Port>(new Port());
    return **port;
}

int32_t Remote::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
try {
    const auto request = std::make_shared<Request>();
    if (!Copy(data, request->data)) {
        return IPC_NO_MEMORY;
    }
    std::packaged_task<int32_t()> run([request, code, self = sptr<Remote>(this)] {
        const std::lock_guard<std::mutex> lock(self->mutex);
        MessageOption itsOption;
        return self->stub != nullptr ? self->stub->SendRequest(code, request->data, request->reply, itsOption)
                                     : IPC_DEAD_OBJECT;
    });
    std::future<int32_t> status = run.get_future();
    std::thread(std::move(run)).detach();
    if (status.wait_for(std::chrono::seconds(option.GetWaitTime())) != std::future_status::ready) {
        return IPC_TIMED_OUT;
    }
    return Copy(request->reply, reply) ? status.get() : IPC_NO_MEMORY;
} catch (const std::exception&) {
    return IPC_NO_MEMORY;  // or no thread is to be had
}

}  // namespace

bool AddService(int32_t id, const sptr<IPCObjectStub>& stub)
{
    Port& port = ThePort();
    const std::lock_guard<std::mutex> lock(port.mutex);
    port.changed.notify_all();
    return port.services.try_emplace(id, sptr<Remote>(new Remote(stub))).second;
}

void RemoveService(int32_t id)
{
    Port& port = ThePort();
    std::unique_lock<std::mutex> lock(port.mutex);
    const auto removed = port.services.extract(id);
    lock.unlock();
    if (removed) {
        const std::lock_guard<std::mutex> noneIsRunning(removed.mapped()->mutex);
        removed.mapped()->stub = nullptr;
    }
}

// What the portable half asks of a port.
sptr<ISystemAbilityManager> DefaultSystemAbilityManager()
{
    return sptr<ISystemAbilityManager>(&ThePort());
}

void DeliverLogLine(int /*type*/, int level, uint32_t /*domain*/, const char* tag, const std::string& text)
{
    std::fprintf(stderr, "%d %s %s\n", level, tag, text.c_str());
}

bool WatchForks(const ForkHandler::Steps& /*steps*/)
{
    return false;  // nobody forks here
}

}  // namespace VARN
