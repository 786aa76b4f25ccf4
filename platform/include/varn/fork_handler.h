// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varn/export.h"

namespace VARN {

// What one piece of state needs so that the child of a fork can use it. The child has a single thread: a lock that
// another thread of the parent held is never released there, and what that thread was changing stays half-changed.
// There are two ways out: hold a lock that is only ever held for moments across the fork, or make a lock that may be
// held for long anew in the child.
//
// It is registered while it exists. A library has it as a static object, so that it goes with the library. A platform
// that cannot fork never calls it.
//
// Thread safety: may be made and destroyed on any thread, but not while that thread holds a lock that a handler takes.
class VARN_API ForkHandler {
public:
    // The order in which locks are taken: who holds one may take one of a later rank, never of an earlier one.
    enum class Rank { LIBRARY, REGISTRY, MANAGER, CONNECTIONS, LOG };

    // Each may be null. They must not throw.
    struct Steps {
        void (*before)();    // in the parent, on the thread that forks; by rank
        void (*inParent)();  // the same thread, when the fork is made, or has failed
        void (*inChild)();   // in the child, before `fork` returns there
    };

    // Runs `steps` around every fork from now on, until it is destroyed.
    ForkHandler(Rank rank, const Steps& steps) noexcept;
    ~ForkHandler();

    ForkHandler(const ForkHandler&) = delete;
    ForkHandler& operator=(const ForkHandler&) = delete;

private:
    static void Run(void (*Steps::*step)());

    const Rank rank_;
    const Steps steps_;
    ForkHandler* next_ = nullptr;
};

}  // namespace VARN
