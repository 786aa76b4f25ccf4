// SPDX-License-Identifier: Apache-2.0
#include "support/allocation.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

thread_local Allocations allocations;

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing::allocations;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing::Allocations;

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    // Counted down past 0 it is NEVER.
    if (allocations.untilFailure != Allocations::NEVER && allocations.untilFailure-- == 0) {
        return nullptr;
    }
    void* memory = std::malloc(size);
    allocations.bytes += static_cast<int64_t>(malloc_usable_size(memory));
    allocations.mostBytes = std::max(allocations.mostBytes, allocations.bytes);
    return memory;
}
void* operator new(size_t size)
{
    void* memory = ::operator new(size, std::nothrow);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept
{
    allocations.bytes -= static_cast<int64_t>(malloc_usable_size(memory));
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    ::operator delete(memory);
}
