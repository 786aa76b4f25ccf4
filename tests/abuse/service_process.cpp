// SPDX-License-Identifier: Apache-2.0
#include "abuse/service_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "varn/host/caller.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {
namespace {

class AbusedService final : public FakeService {
public:
    // Not noted, as neither are those below, so that nothing grows.
    bool IsMessageCodeAllowed(uint32_t) override { return true; }
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string, const std::vector<std::string>&) override { return {}; }
    int32_t GetAppPermissionGroupInfosByPermission(const std::string&, int32_t, const std::unordered_set<std::string>&,
                                                   std::vector<Permission::AppPermissionGroupInfo>&) override
    {
        return 0;
    }
    int32_t GetAppPermissionGroupInfosByApp(const std::string& bundleName, int32_t userId,
                                            const std::unordered_set<std::string>&,
                                            std::vector<Permission::AppPermissionGroupInfo>& infos) override
    {
        if (bundleName == "nap") {
            ::poll(nullptr, 0, userId);
        }
        Permission::AppPermissionGroupInfo& info = infos.emplace_back();
        info.bundleName = std::string(bundleName == "bulk" ? static_cast<size_t>(userId) : 1, 'x');
        info.uid = static_cast<int32_t>(Host::CurrentCaller().uid);
        return 0;
    }
};

// Writes a byte whenever it is ready.
int Serve(const Host::AbilityServerOptions& options, int output)
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::sigaddset(&signals, SIGHUP);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Host::AbilityServer server(FAKE_SERVICE_ID, sptr<IPCObjectStub>(new AbusedService()), options);
    for (int signal = SIGHUP; signal == SIGHUP; ::sigwait(&signals, &signal)) {
        server.Stop();
        if (!server.Start() || ::write(output, "", 1) != 1) {
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}

}  // namespace

void TakeDescriptors()
{
    constexpr uint32_t PASS_RIGHTS = 83;
    sock_filter instructions[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setsockopt, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getsockopt, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PASS_RIGHTS, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOPROTOOPT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {std::size(instructions), instructions};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        ::exit(EXIT_FAILURE);
    }
}

ServiceProcess::ServiceProcess(const Host::SocketFolder& folder, const Host::AbilityServerOptions& options,
                               const std::function<void()>& prepare)
    : logPath_(folder.Path() + "/log")
{
    int ends[2] = {};
    EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    pid_ = ::fork();
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(ends[1], STDOUT_FILENO);
        ::close(ends[0]);
        ::close(ends[1]);
        ::dup2(::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
        // One arena, so that the process's size shows what is in use.
        ::mallopt(M_ARENA_MAX, 1);
        prepare();
        ::exit(Serve(options, STDOUT_FILENO));
    }
    ::close(ends[1]);
    output_ = ends[0];
}

ServiceProcess::~ServiceProcess()
{
    if (pid_ > 0) {
        End(SIGKILL);
    }
    ::close(output_);
}

bool ServiceProcess::IsReady() const
{
    char byte = 0;
    return ::read(output_, &byte, 1) == 1;
}

std::string ServiceProcess::Log() const
{
    std::ifstream log(logPath_);
    return {std::istreambuf_iterator<char>(log), {}};
}

int ServiceProcess::End(int signal)
{
    int status = 0;
    ::kill(pid_, signal);
    if (!Host::Eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; })) {
        ADD_FAILURE() << "it does not end";
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return status;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
