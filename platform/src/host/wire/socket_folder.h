// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/un.h>

#include <cstdint>
#include <string>

namespace VARN::Host {

// Where services listen: VARN_ABILITY_DIR, which a program with raised privileges ignores, or /run/varn. To be called
// seldom, since a thread that reads the environment while another changes it may crash.
std::string ReadSocketDirectory();

// `<directory>/<id>.sock`.
std::string SocketPath(const std::string& directory, int32_t id);

// Fills `address` for `path`. Empty on success, else what is wrong: a path that is too long, with its length and the
// limit.
std::string MakeSocketAddress(const std::string& path, sockaddr_un& address);

// Whether the folder can be trusted: a user that may write in it may put another socket in a service's place. It must
// be a directory that belongs to root or to this process's user and that no other user may write in. Returns 0, or an
// errno with `problem` saying what is wrong (EPERM for a folder that exists but is not safe).
int CheckSocketFolder(const std::string& directory, std::string& problem);

}  // namespace VARN::Host
