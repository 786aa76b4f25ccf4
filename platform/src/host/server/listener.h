// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "host/base/unique_fd.h"

namespace VARN::Host {

// The socket that a server listens on: handed over by the init system, or bound by itself together with a lock file
// that keeps two servers from taking each other's place.
class Listener {
public:
    Listener() = default;
    ~Listener() { Close(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Begins to listen for service `id`. Empty on success, else what is wrong.
    std::string Open(const std::string& directory, int32_t id);

    // Removes the files that were made here; whoever has connected stays connected.
    void Withdraw();

    // Withdraws and ends.
    void Close();

    int Get() const noexcept { return socket_.Get(); }

private:
    std::string Lock();
    std::string Bind();

    std::string path_;  // empty: the init system owns the file
    std::string lockPath_;
    UniqueFd socket_;
    UniqueFd lock_;
};

}  // namespace VARN::Host
