// SPDX-License-Identifier: Apache-2.0
// The smallest port: services and clients of one process. A request is copied into a queue; a thread takes it out, runs
// it and copies the reply back. A port to another system sends the same bytes elsewhere.
#include "smallest_port.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
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

    sptr<IPCObjectStub> stub;  // null: removed
};

// One request under way. Its sender may give up and leave it to the thread.
struct Request {
    sptr<Remote> service;
    uint32_t code = 0;
    MessageParcel data;
    MessageParcel reply;
    std::optional<int32_t> status;  // there when it is done
};

struct Port final : ISystemAbilityManager {
    Port()
    {
        std::thread([this] { Run(); }).detach();
    }

    void Run()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return !requests.empty(); });
            const std::shared_ptr<Request> request = requests.front();
            requests.pop_front();
            if (sptr<IPCObjectStub> stub = request->service->stub; stub != nullptr) {
                running = request->service;
                lock.unlock();
                MessageOption option;
                const int32_t status = stub->SendRequest(request->code, request->data, request->reply, option);
                stub = nullptr;
                lock.lock();
                running = nullptr;
                request->status = status;
                changed.notify_all();
            }
        }
    }

    sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeoutSeconds) override
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto isHere = [&] { return services.count(systemAbilityId) != 0; };
        const bool found = changed.wait_for(lock, std::chrono::seconds(timeoutSeconds), isHere);
        return found ? sptr<IRemoteObject>(services[systemAbilityId]) : nullptr;
    }

    std::mutex mutex;  // guards what follows, and what may change in a service and a request
    std::condition_variable changed;
    std::map<int32_t, sptr<Remote>> services;
    std::deque<std::shared_ptr<Request>> requests;
    sptr<Remote> running;
};

// Never destroyed: the thread outlives main.
Port& ThePort()
{
    static const auto* const port = new sptr<Port>(new Port());
    return **port;
}

int32_t Remote::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
try {
    const auto request = std::make_shared<Request>();
    request->service = sptr<Remote>(this);
    request->code = code;
    if (!Copy(data, request->data)) {
        return IPC_NO_MEMORY;
    }
    Port& port = ThePort();
    std::unique_lock<std::mutex> lock(port.mutex);
    port.requests.push_back(request);
    port.changed.notify_all();
    const auto isOver = [&] { return request->status || stub == nullptr; };
    if (!port.changed.wait_for(lock, std::chrono::seconds(option.GetWaitTime()), isOver)) {
        return IPC_TIMED_OUT;
    }
    if (!request->status) {
        return IPC_DEAD_OBJECT;
    }
    return Copy(request->reply, reply) ? *request->status : IPC_NO_MEMORY;
} catch (const std::bad_alloc&) {
    return IPC_NO_MEMORY;
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
    if (const auto removed = port.services.extract(id)) {
        removed.mapped()->stub = nullptr;
        port.changed.notify_all();
        port.changed.wait(lock, [&] { return port.running != removed.mapped(); });
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
