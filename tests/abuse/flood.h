// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

// Peers that do their worst, each user's in a process of its own.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// What one user does with its connections until its process is killed. One that the service closes is made anew.
struct Flood {
    size_t connections = 1;
    std::string bytes;  // what each of them sends
    enum class Then {
        SEND_AGAIN,
        SEND_WHEN_ANSWERED,
        BE_SILENT,
        HANG_UP,
    } then = Then::SEND_WHEN_ANSWERED;
    bool isReading = true;
    size_t bytesAtATime = SIZE_MAX;
    bool sendsDescriptors = false;  // whose last close blocks for an hour
};

// The processes of some users, one after the other from FIRST_ATTACKER on.
constexpr uid_t FIRST_ATTACKER = 60001;
class Attackers {
public:
    // Waits until each has sent on all its connections once, or a second is over.
    Attackers(const std::string& path, size_t users, const Flood& flood);
    // Kills them.
    ~Attackers();

private:
    std::vector<pid_t> users_;
};

// Five thousand different names of one hash: a set works on them for a tenth of a second and more.
std::vector<std::string> MakeCollidingNames();

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
