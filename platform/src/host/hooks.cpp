// SPDX-License-Identifier: Apache-2.0
// What a Linux host gives the portable half; standalone.cpp is the same for a build without a host.
#include <pthread.h>

#include "host/log/sink.h"
#include "platform_hooks.h"
#include "varn/host/ability_manager.h"

namespace VARN {

sptr<ISystemAbilityManager> DefaultSystemAbilityManager()
{
    return Host::AbilityManager::Get();
}

void DeliverLogLine(int type, int level, uint32_t domain, const char* tag, const std::string& text)
{
    Host::DeliverToSink({type, level, domain, tag, text});
}

bool WatchForks(const ForkHandler::Steps& steps)
{
    return ::pthread_atfork(steps.before, steps.inParent, steps.inChild) == 0;
}

}  // namespace VARN
