// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/raw_client.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// A folder for one socket, where the clients of this process look for it while it exists.
class SocketFolder {
public:
    SocketFolder();
    ~SocketFolder();

    const std::string& Path() const { return path_; }
    std::string SocketPath() const { return path_ + "/65993.sock"; }

private:
    std::string path_ = "/tmp/abuse.XXXXXX";
};

using Host::Eventually;

// What the kernel tells of a process: how many entries a folder has ("fd", "task"), and sizes in bytes ("VmRSS",
// "VmHWM"). The sanitizers keep freed memory and shadow all of it, so with them every size is 0.
size_t CountEntries(pid_t pid, const std::string& folder);
size_t ReadSize(pid_t pid, const std::string& field);
void ResetPeak(pid_t pid);  // "VmHWM" begins anew

// While it exists, those to whom this thread connects see another user and group. The process must be root.
class AsUser {
public:
    explicit AsUser(uid_t user, gid_t group = 0);
    ~AsUser();
};

// A program in a process of its own.
class ServiceProcess {
public:
    // Logs into the folder. `prepare` runs in the new process before the program does.
    ServiceProcess(const SocketFolder& folder, std::vector<std::string> command,
                   const std::function<void()>& prepare = nullptr);
    // Kills it unless it has ended.
    ~ServiceProcess();

    pid_t Pid() const { return pid_; }
    // The next line that it prints; empty when it has ended.
    std::string ReadLine() const;
    bool IsReady() const { return ReadLine().rfind("ready", 0) == 0; }
    std::string Log() const;
    // Its exit status after the signal.
    int End(int signal);

private:
    const std::string logPath_;
    pid_t pid_ = -1;
    int output_ = -1;
};

// A peer that speaks bytes and does not wait for ever.
class Peer : public Host::RawClient {
public:
    explicit Peer(const std::string& path);

    // The next reply, header and body; empty when the service has closed the connection.
    std::string ReadReply() const;
    // Whether the service closes the connection and says nothing before.
    bool IsClosed() const;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
