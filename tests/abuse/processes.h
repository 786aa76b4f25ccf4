// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// What the kernel tells of a process, and who this one is to others.
namespace VARN::Host {

inline std::string ProcPath(pid_t pid, const std::string& name)
{
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// How many entries a folder of the process has: "fd" or "task".
inline size_t CountEntries(pid_t pid, const std::string& folder)
{
    std::error_code ignored;
    const std::filesystem::directory_iterator entries(ProcPath(pid, folder), ignored);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// "VmRSS" or "VmHWM", in bytes. The sanitizers keep freed memory and shadow all of it, so with them it is 0.
inline size_t ReadSize(pid_t pid, const std::string& field)
{
    std::ifstream status(ProcPath(pid, "status"));
    std::string name;
    size_t size = 0;
    while (status >> name && name != field + ":") {
    }
    constexpr size_t KIBIBYTE = 1024;
    return status >> size && IS_SIZE_TELLING ? size * KIBIBYTE : 0;
}

// "VmHWM" begins anew.
inline void ResetPeak(pid_t pid)
{
    std::ofstream(ProcPath(pid, "clear_refs")) << "5";
}

// While it exists, those to whom this thread connects see another user and group. The process must be root.
class AsUser {
public:
    explicit AsUser(uid_t user, gid_t group = 0)
    {
        ::syscall(SYS_setresgid, -1, group, -1);
        ::syscall(SYS_setresuid, -1, user, -1);
    }
    ~AsUser()
    {
        ::syscall(SYS_setresuid, -1, 0, -1);
        ::syscall(SYS_setresgid, -1, 0, -1);
    }
};

}  // namespace VARN::Host
