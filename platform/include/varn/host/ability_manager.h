// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>

#include "varn/export.h"
#include "varn/system_ability_manager.h"

namespace VARN::Host {

// The manager that `SystemAbilityManagerClient` hands out on this host unless told otherwise. It knows the objects that
// were added in this process, and beyond them the services that listen on `<directory>/<id>.sock`, where the directory
// is the environment variable VARN_ABILITY_DIR (ignored in a program that runs with raised privileges) or /run/varn.
// The variable is read at first use, and again only when no service is found where it pointed to.
//
// Thread safety: every operation may be called from any thread.
class VARN_API AbilityManager final : public ISystemAbilityManager {
public:
    // The only instance of the process, made on first use.
    static sptr<AbilityManager> Get();

    ~AbilityManager() override;

    // Makes `object` the service `id` of this process: it is found first, and no socket is involved. False when the
    // object is null or the id is taken.
    bool AddSystemAbility(int32_t id, sptr<IRemoteObject> object);

    // Takes it back. False when there was none.
    bool RemoveSystemAbility(int32_t id);

    // The object added under the id; else a stand-in for the service on the socket, with a connection that was alive
    // when it was last looked at. Waits up to the timeout for a socket that does not exist yet or refuses, then returns
    // null with an error line that says path, step and errno. A folder that is not safe to use (see docs/security.md)
    // or that this process may not enter is refused at once. The stand-in keeps its connections for later requests, one
    // for each thread that sends at the same time; it may be kept and connects afresh when the service has been
    // restarted.
    sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeoutSeconds) override;

private:
    struct State;

    AbilityManager();

    const std::unique_ptr<State> state_;
};

}  // namespace VARN::Host
