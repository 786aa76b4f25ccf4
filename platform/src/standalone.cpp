// SPDX-License-Identifier: Apache-2.0
#include <cstdio>

#include "platform_hooks.h"

namespace VARN {

// Without a host there is no other process to find anything in.
sptr<ISystemAbilityManager> DefaultSystemAbilityManager()
{
    return nullptr;
}

void DeliverLogLine(int /*type*/, int level, uint32_t /*domain*/, const char* tag, const std::string& text)
{
    std::fprintf(stderr, "%d %s: %s\n", level, tag, text.c_str());
}

// The standard library has no fork.
bool WatchForks(const ForkHandler::Steps& /*steps*/)
{
    return false;
}

}  // namespace VARN
