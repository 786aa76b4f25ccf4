// SPDX-License-Identifier: Apache-2.0
#include <cstdio>

#include "platform_hooks.h"

namespace VARN {

// Without a host there is no other process to find anything in.
sptr<ISystemAbilityManager> DefaultSystemAbilityManager()
{
    return nullptr;
}

void WriteLogLine(const Host::LogLine& line) noexcept
{
    std::fprintf(stderr, "%d %s: %s\n", line.level, line.tag.c_str(), line.text.c_str());
}

}  // namespace VARN
