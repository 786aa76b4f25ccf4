// SPDX-License-Identifier: Apache-2.0
#include "support/allocation.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

constexpr size_t NEVER = SIZE_MAX;
// In front of each block stands its size.
constexpr size_t HEAD = alignof(std::max_align_t);

thread_local size_t untilFailure = NEVER;
thread_local bool hasFailed = false;
thread_local void* lastNothrowNew = nullptr;
thread_local bool isLastDeleted = false;
thread_local int64_t bytes = 0;
thread_local int64_t mostBytes = 0;

void* Allocate(size_t size) noexcept
{
    if (untilFailure != NEVER && untilFailure-- == 0) {
        untilFailure = NEVER;
        hasFailed = true;
        return nullptr;
    }
    auto* block = static_cast<char*>(std::malloc(HEAD + size));
    if (block == nullptr) {
        return nullptr;
    }
    *reinterpret_cast<size_t*>(block) = size;
    bytes += static_cast<int64_t>(size);
    mostBytes = std::max(mostBytes, bytes);
    return block + HEAD;
}

}  // namespace

void* operator new(size_t size)
{
    void* memory = Allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    lastNothrowNew = Allocate(size);
    isLastDeleted = false;
    return lastNothrowNew;
}
void operator delete(void* memory) noexcept
{
    if (memory == nullptr) {
        return;
    }
    isLastDeleted = isLastDeleted || memory == lastNothrowNew;
    char* block = static_cast<char*>(memory) - HEAD;
    bytes -= static_cast<int64_t>(*reinterpret_cast<size_t*>(block));
    std::free(block);
}
void operator delete(void* memory, size_t) noexcept
{
    ::operator delete(memory);
}

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

void FailAllocation(size_t count)
{
    untilFailure = count;
    hasFailed = false;
}
bool HasAllocationFailed()
{
    untilFailure = NEVER;
    return hasFailed;
}
bool IsLastNothrowNewDeleted()
{
    return isLastDeleted;
}
void CountBytes()
{
    bytes = 0;
    mostBytes = 0;
}
size_t MostBytes()
{
    return static_cast<size_t>(mostBytes);
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
