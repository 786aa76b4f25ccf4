// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace VARN::Host {

// When the process's allocator (malloc(3)) gives freed memory back to the system.
//
// While requests come it keeps it: a list of ten thousand records that takes its pages anew for each request costs a
// fifth more. A service that was asked for much once must not hold it for ever, so it goes back when it is quiet. That
// takes two: each worker has an arena of its own, whose end only the worker itself can give back, by freeing a long
// block. The rest is given back for all arenas together.

// To be called before the threads begin; also gives back what the program needed until then.
void PrepareHeap() noexcept;

// By a worker that has been idle for a while: the end of its arena.
void GiveArenaBack() noexcept;

// All but the ends of the arenas. Any thread may do so at any time.
void GiveHeapBack() noexcept;

}  // namespace VARN::Host
