// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "varn/export.h"
#include "varn/ref_base.h"
#include "varn/remote_object.h"

namespace VARN {

// Finds the services of the device by their numbers.
//
// Thread safety: every operation may be called from several threads at once.
class VARN_API ISystemAbilityManager : public virtual RefBase {
public:
    ~ISystemAbilityManager() override;

    // The object of service `systemAbilityId`, started if need be. Waits at most `timeoutSeconds` for it to appear,
    // then returns null.
    virtual sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeoutSeconds) = 0;
};

// Where a process gets its manager from. Until told otherwise it is the platform's own.
//
// Thread safety: every operation may be called from any thread.
class VARN_API SystemAbilityManagerClient {
public:
    // The only instance of the process, made on first use.
    static SystemAbilityManagerClient& GetInstance();

    SystemAbilityManagerClient(const SystemAbilityManagerClient&) = delete;
    SystemAbilityManagerClient& operator=(const SystemAbilityManagerClient&) = delete;

    // The manager, or null when there is none.
    sptr<ISystemAbilityManager> GetSystemAbilityManager();

    // Puts `manager` in the place of the platform's own, for tests and for programs that bring theirs. Null: this
    // process has no manager from now on.
    void SetSystemAbilityManager(sptr<ISystemAbilityManager> manager);

private:
    SystemAbilityManagerClient();
    ~SystemAbilityManagerClient();

    sptr<ISystemAbilityManager> manager_;  // guarded by the manager's lock
};

}  // namespace VARN
