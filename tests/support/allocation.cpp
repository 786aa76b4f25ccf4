// SPDX-License-Identifier: Apache-2.0
#include "support/allocation.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local bool isFailing = false;
thread_local void* lastNothrowNew = nullptr;
thread_local bool isLastDeleted = false;

}  // namespace

void* operator new(size_t size)
{
    void* memory = std::malloc(size > 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    if (isFailing) {
        return nullptr;
    }
    lastNothrowNew = std::malloc(size > 0 ? size : 1);
    isLastDeleted = false;
    return lastNothrowNew;
}

void operator delete(void* memory) noexcept
{
    isLastDeleted = isLastDeleted || (memory != nullptr && memory == lastNothrowNew);
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    ::operator delete(memory);
}

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

void SetNothrowNewFails(bool isFailingFromNowOn)
{
    isFailing = isFailingFromNowOn;
}

bool IsLastNothrowNewDeleted()
{
    return isLastDeleted;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
