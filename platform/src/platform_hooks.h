// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "varn/system_ability_manager.h"

namespace VARN {

// What the portable half asks of whatever it runs on. The host implements both in host/; standalone.cpp does for a
// build without one.

// The manager that a process has when nobody sets one; null: none.
sptr<ISystemAbilityManager> DefaultSystemAbilityManager();

// Takes a formatted line that has passed the level. Called by several threads at once.
void DeliverLogLine(int type, int level, uint32_t domain, const char* tag, const std::string& text);

}  // namespace VARN
