// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "support/calls.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// A service in a process of its own, which logs into the folder. It begins anew at SIGHUP and ends at SIGTERM. One
// operation says who asked; for the app "nap" it takes as many milliseconds as the user id says, for "bulk" its answer
// has so many bytes. The process of the test must not have had a server or a thread before.
class ServiceProcess {
public:
    // `prepare` runs in the new process first.
    ServiceProcess(const Host::SocketFolder& folder, const Host::AbilityServerOptions& options,
                   const std::function<void()>& prepare);
    // Kills it unless it has ended.
    ~ServiceProcess();

    pid_t Pid() const { return pid_; }
    // Waits until it serves; false when it has ended.
    bool IsReady() const;
    std::string Log() const;
    // Its exit status after the signal.
    int End(int signal);

private:
    const std::string logPath_;
    pid_t pid_ = -1;
    int output_ = -1;
};

inline std::string MakeByAppFrame(const std::string& bundleName, int32_t userId)
{
    return Host::MakeFrame(1, MakeRequest("'" + bundleName + "' " + std::to_string(userId) + " 0"));
}
inline const std::string honestFrame = MakeByAppFrame("com.example.bank", 100);

// From now on this process behaves as on a kernel that knows nothing of refusing descriptors.
void TakeDescriptors();

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
