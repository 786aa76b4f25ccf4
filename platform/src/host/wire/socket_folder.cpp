// SPDX-License-Identifier: Apache-2.0
#include "host/wire/socket_folder.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform_log.h"

namespace VARN::Host {

std::string ReadSocketDirectory()
{
    const char* directory = ::secure_getenv("VARN_ABILITY_DIR");
    return directory != nullptr && directory[0] != '\0' ? directory : "/run/varn";
}

std::string SocketPath(const std::string& directory, int32_t id)
{
    return directory + "/" + std::to_string(id) + ".sock";
}

std::string MakeSocketAddress(const std::string& path, sockaddr_un& address)
{
    // One byte stays for the terminator.
    constexpr size_t LIMIT = sizeof(address.sun_path) - 1;
    if (path.size() > LIMIT) {
        return "the path " + path + " is " + std::to_string(path.size()) + " bytes long, a socket's may be " +
               std::to_string(LIMIT);
    }
    address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return {};
}

int CheckSocketFolder(const std::string& directory, std::string& problem)
{
    const auto fail = [&](int error, const std::string& what) {
        problem = "the socket folder " + directory + what;
        return error;
    };
    struct stat folder = {};
    if (::stat(directory.c_str(), &folder) != 0) {
        const int error = errno;
        return fail(error, " cannot be used: " + ErrorText(error));
    }
    if (!S_ISDIR(folder.st_mode)) {
        return fail(ENOTDIR, " is not a directory");
    }
    if (folder.st_uid != 0 && folder.st_uid != ::geteuid()) {
        return fail(EPERM, " belongs to user " + std::to_string(folder.st_uid) + ", not to root or to user " +
                               std::to_string(::geteuid()));
    }
    if ((folder.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return fail(EPERM, " may be written by others than its owner; use a private one");
    }
    return 0;
}

}  // namespace VARN::Host
