// SPDX-License-Identifier: Apache-2.0
#include "host/server/heap.h"

#include <malloc.h>

#include <cstdlib>
#include <mutex>

#include "parcel_buffer.h"
#include "varn/fork_handler.h"

namespace VARN::Host {

namespace {

// Longer blocks are mapped one by one, and of its end an arena keeps so much: enough for the longest lists.
constexpr int MAPPED_BYTES = 4 * 1024 * 1024;
constexpr int KEPT_BYTES = 8 * 1024 * 1024;

// Of the end of a quiet worker's arena so much may stay. The allocator looks at it when a block of 64 KiB is freed.
constexpr int KEPT_QUIET_BYTES = 128 * 1024;

// Held while the threshold is low, and across a fork: the child may start a server of its own.
std::mutex quietMutex;
const ForkHandler heapForkHandler(ForkHandler::Rank::LOG, {[] { quietMutex.lock(); }, [] { quietMutex.unlock(); },
                                                           [] { quietMutex.unlock(); }});

// While it exists, what is freed at the end of an arena goes back, whichever thread frees it.
class QuietScope {
public:
    QuietScope() noexcept { ::mallopt(M_TRIM_THRESHOLD, KEPT_QUIET_BYTES); }
    ~QuietScope() { ::mallopt(M_TRIM_THRESHOLD, KEPT_BYTES); }

private:
    const std::lock_guard<std::mutex> lock_{quietMutex};
};

}  // namespace

void PrepareHeap() noexcept
{
    ::mallopt(M_MMAP_THRESHOLD, MAPPED_BYTES);
    ::mallopt(M_TRIM_THRESHOLD, KEPT_BYTES);
    ::malloc_trim(0);
}

void GiveArenaBack() noexcept
{
    const QuietScope scope;
    // Volatile, or the compiler would leave both calls out.
    void* volatile block = std::malloc(KEPT_QUIET_BYTES);
    std::free(block);
}

void GiveHeapBack() noexcept
{
    const QuietScope scope;
    ParcelBuffer::FreeSpares();
    ::malloc_trim(0);
}

}  // namespace VARN::Host
