// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "host/base/unique_fd.h"
#include "host/server/peer_socket.h"

namespace VARN::Host {

// The socket that a server listens on: handed over by the init system, or bound by itself together with a lock file
// that keeps two servers from taking each other's place.
class Listener {
public:
    // Withdraws. A socket that was handed over stays open, for the next Listener.
    ~Listener();

    // Begins to listen for service `id`. Called once; empty on success, else what is wrong.
    std::string Open(const std::string& directory, int32_t id);

    // Removes the files that were made here; clients that have connected stay connected.
    void Withdraw();

    int Get() const noexcept { return socket_.Get(); }

private:
    std::string Lock();
    std::string Bind();

    std::string path_;
    std::string fileName_;
    std::string lockName_;
    // Files are named within it: the program may change its directory, or the folder its name. None for a socket that
    // was handed over.
    UniqueFd folder_;
    PeerSocket socket_;
    UniqueFd lock_;
};

}  // namespace VARN::Host
