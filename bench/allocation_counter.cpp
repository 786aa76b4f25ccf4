// SPDX-License-Identifier: Apache-2.0
// Preloaded into a process, counts its heap allocations: a 64-bit number at the start of the file that
// BENCH_ALLOCATION_COUNTER names, which has to be there and 8 bytes long. Those that ask for an alignment do not count.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): glibc's own names for what this file
// replaces
extern "C" void* __libc_malloc(size_t bytes);
extern "C" void* __libc_calloc(size_t count, size_t bytes);
extern "C" void* __libc_realloc(void* memory, size_t bytes);
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace {

std::atomic<uint64_t> early{0};
std::atomic<uint64_t>* counter = &early;  // changed once, before main

void CountOne()
{
    counter->fetch_add(1, std::memory_order_relaxed);
}

__attribute__((constructor)) void MapCounter()
{
    const char* path = getenv("BENCH_ALLOCATION_COUNTER");
    const int descriptor = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (descriptor < 0) {
        return;
    }
    void* memory = mmap(nullptr, sizeof(*counter), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (memory != MAP_FAILED) {
        counter = static_cast<std::atomic<uint64_t>*>(memory);
    }
}

}  // namespace

extern "C" void* malloc(size_t bytes)
{
    CountOne();
    return __libc_malloc(bytes);
}

extern "C" void* calloc(size_t count, size_t bytes)
{
    CountOne();
    return __libc_calloc(count, bytes);
}

extern "C" void* realloc(void* memory, size_t bytes)
{
    CountOne();
    return __libc_realloc(memory, bytes);
}
