// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/base/unique_fd.h"

namespace VARN::Host {

// A Unix stream socket that does not block and that a program started by this one does not inherit. Holds nothing, with
// the reason in errno, when the system refuses.
UniqueFd MakeUnixSocket() noexcept;

}  // namespace VARN::Host
