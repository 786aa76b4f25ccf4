// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "varn/fork_handler.h"
#include "varn/system_ability_manager.h"

namespace VARN {

// What the portable half asks of whatever it runs on: host/hooks.cpp gives it on a Linux host, standalone.cpp in a
// build without a host.

// The manager that a process has when nobody sets one; null: none.
sptr<ISystemAbilityManager> DefaultSystemAbilityManager();

// Takes a formatted line that has passed the level. Called by several threads at once.
void DeliverLogLine(int type, int level, uint32_t domain, const char* tag, const std::string& text);

// Has the steps run around every fork of this process from now on; called once. False when nobody forks here.
bool WatchForks(const ForkHandler::Steps& steps);

}  // namespace VARN
