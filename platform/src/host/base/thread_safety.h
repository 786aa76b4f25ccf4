// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>

// Clang checks with these that a field is touched under its lock only; other compilers see nothing.
#if defined(__clang__)
#define VARN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VARN_THREAD_ANNOTATION(x)
#endif
#define GUARDED_BY(mutex) VARN_THREAD_ANNOTATION(guarded_by(mutex))
#define REQUIRES(mutex) VARN_THREAD_ANNOTATION(requires_capability(mutex))

namespace VARN::Host {

// std::mutex and its guard, as names that the check knows. What is locked without the guard, as around a fork, it does
// not see.
class VARN_THREAD_ANNOTATION(capability("mutex")) Mutex : public std::mutex {};

class VARN_THREAD_ANNOTATION(scoped_lockable) MutexLock : public std::unique_lock<std::mutex> {
public:
    explicit MutexLock(Mutex& mutex) VARN_THREAD_ANNOTATION(acquire_capability(mutex)) : unique_lock(mutex) {}
    ~MutexLock() VARN_THREAD_ANNOTATION(release_capability()) = default;
};

}  // namespace VARN::Host
