// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "security_privacy/testing/fake_service.h"
#include "varn/host/ability_server.h"
#include "varn/host/caller.h"

// A service with operations for tests, which begins anew at SIGHUP: one says who asked, waits at a gate or answers at
// any length.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

// Whether this process behaves as on a kernel that knows nothing of refusing descriptors.
bool takesDescriptors = false;

bool IsUnknown(int level, int option)
{
    constexpr int PASS_RIGHTS = 83;
    errno = ENOPROTOOPT;
    return takesDescriptors && level == SOL_SOCKET && option == PASS_RIGHTS;
}

// One write, so that what was printed survives a kill.
void Print(const std::string& line)
{
    static_cast<void>(!::write(STDOUT_FILENO, (line + "\n").data(), line.size() + 1));
}

class AbusedService final : public FakeService {
public:
    explicit AbusedService(const std::string& directory) : gate_(directory + "/gate") {}

    // Not noted, as neither are those below, so that nothing grows.
    bool IsMessageCodeAllowed(uint32_t) override { return true; }
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string, const std::vector<std::string>&) override { return {}; }

    // App "gate": waits until somebody has opened the gate and closed it again. "nap": takes `userId` milliseconds.
    // "bulk": `userId` bytes of answer.
    int32_t GetAppPermissionGroupInfosByApp(const std::string& bundleName, int32_t userId,
                                            const std::unordered_set<std::string>&,
                                            std::vector<Permission::AppPermissionGroupInfo>& infos) override
    {
        if (bundleName == "gate") {
            const int gate = ::open(gate_.c_str(), O_RDONLY | O_CLOEXEC);
            char byte = 0;
            while (::read(gate, &byte, 1) > 0) {
            }
            ::close(gate);
        }
        if (bundleName == "nap") {
            ::poll(nullptr, 0, userId);
        }
        Permission::AppPermissionGroupInfo& info = infos.emplace_back();
        info.bundleName = std::string(bundleName == "bulk" ? static_cast<size_t>(userId) : 1, 'x');
        info.uid = static_cast<int32_t>(Host::CurrentCaller().uid);
        return 0;
    }

private:
    const std::string gate_;
};

int Serve(std::map<std::string, std::string> given)
{
    takesDescriptors = given.count("--takes-descriptors") != 0;
    const auto number = [&given](const char* name) { return std::strtoul(given[name].c_str(), nullptr, 10); };
    // Nothing, like 0, stands for a default.
    Host::AbilityServerOptions options;
    options.directory = given["--directory"];
    options.workers = number("--workers");
    options.maxConnections = number("--max-connections");
    options.maxConnectionsPerUser = number("--max-connections-per-user");
    options.stallTimeout = std::chrono::milliseconds(number("--stall-timeout-ms"));
    options.replyTimeout = std::chrono::milliseconds(number("--reply-timeout-ms"));
    options.maxWaitingReplyBytesPerUser = number("--max-waiting-reply-bytes");

    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::sigaddset(&signals, SIGHUP);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Host::AbilityServer server(FAKE_SERVICE_ID, sptr<IPCObjectStub>(new AbusedService(options.directory)), options);
    int signal = SIGHUP;
    while (signal == SIGHUP) {
        server.Stop();
        if (!server.Start()) {
            return EXIT_FAILURE;
        }
        Print("ready");
        ::sigwait(&signals, &signal);
    }
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing::IsUnknown;

// In front of the C library's.
extern "C" int setsockopt(int fd, int level, int option, const void* value, socklen_t size) __THROW
{
    static const auto real = reinterpret_cast<decltype(&::setsockopt)>(::dlsym(RTLD_NEXT, "setsockopt"));
    return IsUnknown(level, option) ? -1 : real(fd, level, option, value, size);
}

extern "C" int getsockopt(int fd, int level, int option, void* value, socklen_t* size) __THROW
{
    static const auto real = reinterpret_cast<decltype(&::getsockopt)>(::dlsym(RTLD_NEXT, "getsockopt"));
    return IsUnknown(level, option) ? -1 : real(fd, level, option, value, size);
}

int main(int argc, char** argv)
{
    std::map<std::string, std::string> options;
    for (int index = 1; index + 1 < argc; index += 2) {
        options[argv[index]] = argv[index + 1];
    }
    return VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing::Serve(std::move(options));
}
