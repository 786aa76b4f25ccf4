// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace VARN::Host {

// How many forks lie between the first process and this one. What was made under another number belongs to an ancestor:
// its threads are not here, and its sockets and files are not this process's to end.
//
// Thread safety: may be called from any thread.
uint32_t ProcessGeneration() noexcept;

}  // namespace VARN::Host
