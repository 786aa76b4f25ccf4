// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/host/log_sink.h"
#include "varn/system_ability_manager.h"

namespace VARN {

// What the portable half asks of whatever it runs on. The host implements them in host/; standalone.cpp does for a
// build without one.

// The manager that a process has when nobody sets one; null: none.
sptr<ISystemAbilityManager> DefaultSystemAbilityManager();

// Writes a line where an operator reads it, when there is no sink. Called by several threads at once; must not throw.
void WriteLogLine(const Host::LogLine& line) noexcept;

// What the portable half offers in turn: the log's lock, to be held across a fork, so that the child can log.
void LockLog();
void UnlockLog();

}  // namespace VARN
