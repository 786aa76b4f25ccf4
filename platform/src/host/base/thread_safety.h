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

// std::mutex and its guard, as names that the check knows.
class VARN_THREAD_ANNOTATION(capability("mutex")) Mutex {
public:
    void Lock() VARN_THREAD_ANNOTATION(acquire_capability()) { mutex_.lock(); }
    void Unlock() VARN_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

class VARN_THREAD_ANNOTATION(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& mutex) VARN_THREAD_ANNOTATION(acquire_capability(mutex)) : mutex_(mutex)
    {
        mutex_.Lock();
    }
    ~MutexLock() VARN_THREAD_ANNOTATION(release_capability()) { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

}  // namespace VARN::Host
