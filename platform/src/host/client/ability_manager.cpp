// SPDX-License-Identifier: Apache-2.0
#include "varn/host/ability_manager.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>

#include "host/base/deadline.h"
#include "host/client/channel.h"
#include "host/wire/socket_folder.h"
#include "platform_log.h"

namespace VARN::Host {

namespace {

// How long to wait before looking for a socket again: at first for a service that is just starting, later for one that
// may never come.
constexpr std::chrono::milliseconds FIRST_PAUSE{1};
constexpr std::chrono::milliseconds LAST_PAUSE{50};

}  // namespace

struct __attribute__((visibility("hidden"))) AbilityManager::State {
    std::string directory GUARDED_BY(clientMutex);  // what the variable has said; empty: not read yet
    std::unordered_map<int32_t, sptr<IRemoteObject>> added GUARDED_BY(clientMutex);
    std::unordered_map<int32_t, sptr<Channel>> channels GUARDED_BY(clientMutex);

    // The object that was added under the id; else null, and in `channel` the way to its socket, made when there is
    // none yet or the folder is another by now.
    sptr<IRemoteObject> Find(int32_t id, sptr<Channel>& channel)
    {
        sptr<Channel> other;
        const MutexLock lock(clientMutex);
        const auto found = added.find(id);
        if (found != added.end()) {
            return found->second;
        }
        if (directory.empty()) {
            directory = ReadSocketDirectory();
        }
        sptr<Channel>& known = channels[id];
        if (!known || known->GetDirectory() != directory) {
            other = new Channel(directory, id);
            other.Swap(known);
        }
        channel = known;
        return nullptr;
    }

    // Whether the variable, read again, says something else than where a channel has looked.
    bool HasMoved(const Channel& channel)
    {
        const MutexLock lock(clientMutex);
        directory = ReadSocketDirectory();
        return directory != channel.GetDirectory();
    }
};

AbilityManager::AbilityManager() : state_(std::make_unique<State>()) {}

AbilityManager::~AbilityManager() = default;

sptr<AbilityManager> AbilityManager::Get()
{
    static const sptr<AbilityManager> manager(new AbilityManager);
    return manager;
}

bool AbilityManager::AddSystemAbility(int32_t id, sptr<IRemoteObject> object)
{
    if (!object) {
        PLATFORM_ERROR("service %d cannot be added: the object is null", id);
        return false;
    }
    const MutexLock lock(clientMutex);
    return state_->added.try_emplace(id, std::move(object)).second;
}

bool AbilityManager::RemoveSystemAbility(int32_t id)
{
    // The object's own destructor runs after the lock is released.
    decltype(state_->added)::node_type object;
    const MutexLock lock(clientMutex);
    object = state_->added.extract(id);
    return !object.empty();
}

sptr<IRemoteObject> AbilityManager::LoadSystemAbility(int32_t systemAbilityId, int32_t timeoutSeconds)
{
    std::optional<Deadline> deadline;  // most services are there, and need no clock
    auto pause = FIRST_PAUSE;
    for (;;) {
        sptr<Channel> channel;
        if (sptr<IRemoteObject> object = state_->Find(systemAbilityId, channel)) {
            return object;
        }
        std::string problem;
        const int error = channel->Prepare(problem);
        if (error == 0) {
            return channel;
        }
        if (state_->HasMoved(*channel)) {
            continue;
        }
        if (!deadline) {
            deadline.emplace(std::chrono::seconds(std::max(timeoutSeconds, 0)));
        }
        const int left = deadline->LeftMilliseconds();
        // As long as there is no socket yet, no server listens on it, or its queue is full. Anything else (a folder
        // that is unsafe or closed to us, a path too long) will not get better by waiting.
        const bool mayAppear = error == ENOENT || error == ECONNREFUSED || error == EAGAIN;
        if (!mayAppear || left == 0) {
            PLATFORM_ERROR("service %d cannot be found: %s%s", systemAbilityId, problem.c_str(),
                           mayAppear ? "; is the service running?" : "");
            return nullptr;
        }
        std::this_thread::sleep_for(std::min(pause, std::chrono::milliseconds(left)));
        pause = std::min(pause * 2, LAST_PAUSE);
    }
}

}  // namespace VARN::Host
