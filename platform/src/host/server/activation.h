// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "host/base/unique_fd.h"

namespace VARN::Host {

// The listening socket that the init system handed over for the service whose socket file is called `fileName`
// (LISTEN_PID and LISTEN_FDS): the one bound to a file of that name, or the only one there is. Nothing when the
// variables are not meant for this process or not well formed. They are consumed by the first call.
UniqueFd TakeActivatedSocket(const std::string& fileName);

}  // namespace VARN::Host
