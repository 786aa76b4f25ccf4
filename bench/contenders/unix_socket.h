// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

namespace bench {

std::string SocketPath(const std::string& directory);

// A descriptor for the caller to close; throws when the system refuses.
int ConnectTo(const std::string& directory);

// Listens in `directory`, announces that, and accepts for ever; each connection gets a thread that runs `handle` and
// owns the descriptor.
[[noreturn]] void ServeOnThreads(const std::string& directory, const std::function<void(int)>& handle);

}  // namespace bench
