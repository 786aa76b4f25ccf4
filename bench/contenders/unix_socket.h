// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/socket.h>

#include <functional>
#include <string>

namespace bench {

// A socket that `bind` or `connect` has given the address, for the caller to close; throws when the system refuses.
int SocketWith(decltype(connect)* attach, const std::string& path);

// Listens at `path`, announces that, and accepts for ever; each connection gets a thread that runs `handle` and
// owns the descriptor.
[[noreturn]] void ServeOnThreads(const std::string& path, const std::function<void(int)>& handle);

}  // namespace bench
