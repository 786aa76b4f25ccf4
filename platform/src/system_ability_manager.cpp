// SPDX-License-Identifier: Apache-2.0
#include "varn/system_ability_manager.h"

#include <mutex>

#include "platform_hooks.h"

namespace VARN {

namespace {

// Guards the only instance's manager. A namespace's own, so that it can be held across a fork.
std::mutex managerMutex;

const ForkHandler managerForkHandler(ForkHandler::Rank::MANAGER,
                                     {[] { managerMutex.lock(); }, [] { managerMutex.unlock(); },
                                      [] { managerMutex.unlock(); }});

}  // namespace

ISystemAbilityManager::~ISystemAbilityManager() = default;

SystemAbilityManagerClient::SystemAbilityManagerClient() : manager_(DefaultSystemAbilityManager()) {}

// A thread that is still at work while the process ends finds no manager rather than a dead one.
SystemAbilityManagerClient::~SystemAbilityManagerClient()
{
    SetSystemAbilityManager(nullptr);
}

SystemAbilityManagerClient& SystemAbilityManagerClient::GetInstance()
{
    static SystemAbilityManagerClient client;
    return client;
}

sptr<ISystemAbilityManager> SystemAbilityManagerClient::GetSystemAbilityManager()
{
    const std::lock_guard<std::mutex> lock(managerMutex);
    return manager_;
}

void SystemAbilityManagerClient::SetSystemAbilityManager(sptr<ISystemAbilityManager> manager)
{
    // The old manager goes after the lock does: its destructor is not our code.
    const std::lock_guard<std::mutex> lock(managerMutex);
    manager_.Swap(manager);
}

}  // namespace VARN
