// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "host/base/unique_fd.h"

namespace VARN::Host {

// The sockets that the init system handed over (LISTEN_PID and LISTEN_FDS). The variables are consumed by the first
// call, unless they are meant for another process. Descriptors that are not taken stay open: they may be for other
// parts of the program.
//
// Both may be called from any thread.

// The listening socket for the service whose socket file is called `fileName`: the one bound to a file of that name, or
// the only one there is, unless its name is that of another service. Nothing when there is none.
UniqueFd TakeActivatedSocket(const std::string& fileName);

// Keeps a socket that was taken for the next server that asks: the init system hands it over only once.
void GiveActivatedSocketBack(UniqueFd socket);

}  // namespace VARN::Host
