// SPDX-License-Identifier: Apache-2.0
#include "varn/fork_handler.h"

#include <mutex>

#include "platform_hooks.h"

namespace VARN {

namespace {

// Held across the fork as well: the list is whole in the child. Neither has a constructor to run, since handlers are
// registered while libraries are loaded.
std::mutex handlersMutex;
ForkHandler* firstHandler = nullptr;  // the lowest rank first; guarded by handlersMutex

}  // namespace

void ForkHandler::Run(void (*Steps::*step)())
{
    if (step == &Steps::before) {
        handlersMutex.lock();
    }
    for (const ForkHandler* handler = firstHandler; handler != nullptr; handler = handler->next_) {
        if (handler->steps_.*step != nullptr) {
            (handler->steps_.*step)();
        }
    }
    if (step != &Steps::before) {
        handlersMutex.unlock();
    }
}

ForkHandler::ForkHandler(Rank rank, const Steps& steps) noexcept : rank_(rank), steps_(steps)
{
    [[maybe_unused]] static const bool isWatching =
        WatchForks({[] { Run(&Steps::before); }, [] { Run(&Steps::inParent); }, [] { Run(&Steps::inChild); }});
    const std::lock_guard<std::mutex> lock(handlersMutex);
    ForkHandler** place = &firstHandler;
    while (*place != nullptr && (*place)->rank_ <= rank_) {
        place = &(*place)->next_;
    }
    next_ = *place;
    *place = this;
}

ForkHandler::~ForkHandler()
{
    const std::lock_guard<std::mutex> lock(handlersMutex);
    ForkHandler** place = &firstHandler;
    while (*place != this) {
        place = &(*place)->next_;
    }
    *place = next_;
}

}  // namespace VARN
