// SPDX-License-Identifier: Apache-2.0
// The smallest service: keeps the state of the camera for each app, in memory.
#include <unistd.h>

#include <csignal>
#include <map>
#include <mutex>

#include "security_privacy/security_privacy_service_stub.h"
#include "varn/host/ability_server.h"
#include "varn/host/caller.h"

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

namespace {

constexpr int32_t NOT_SUPPORTED = 1001;

class CameraService final : public SecurityPrivacyServiceStub {
public:
    // Everybody may read; root and our own user may change.
    bool IsMessageCodeAllowed(uint32_t messageCode) override
    {
        const uid_t uid = VARN::Host::CurrentCaller().uid;
        return messageCode == MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP || uid == 0 || uid == ::geteuid();
    }

    int32_t GetAppPermissionGroupInfosByApp(const std::string& bundleName, int32_t /*userId*/,
                                            const std::unordered_set<std::string>& /*interestedPermissionGroups*/,
                                            std::vector<Permission::AppPermissionGroupInfo>& infos) override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        Permission::AppPermissionGroupInfo info;
        info.bundleName = bundleName;
        info.permissionGroup = "CAMERA";
        info.shownStates = {"allow", "deny"};
        const auto chosen = states_.find(bundleName);
        info.checkedState = chosen != states_.end() ? chosen->second : "deny";
        infos.push_back(info);
        return 0;
    }
    int32_t SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t /*uid*/,
                                              const std::string& /*permissionGroup*/,
                                              const Permission::CheckedStateParameter& parameter,
                                              bool& returns) override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        states_[bundleName] = parameter.checkedState;
        returns = true;
        return 0;
    }

    int32_t GetAppPermissionGroupInfosByPermission(const std::string&, int32_t, const std::unordered_set<std::string>&,
                                                   std::vector<Permission::AppPermissionGroupInfo>&) override
    {
        return NOT_SUPPORTED;
    }
    int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery&,
                                      std::vector<Record::PermissionUsageRecord>&) override
    {
        return NOT_SUPPORTED;
    }
    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery&,
                                       std::vector<Record::PermissionUsageRecord>&) override
    {
        return NOT_SUPPORTED;
    }
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>&) override { return NOT_SUPPORTED; }
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string, const std::vector<std::string>&) override
    {
        GTokenResultWithRet result;
        result.ret = NOT_SUPPORTED;
        return result;
    }
    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>&) override { return NOT_SUPPORTED; }

private:
    std::mutex mutex_;  // requests come on several threads at once
    std::map<std::string, std::string> states_;
};

}  // namespace

int main()
{
    // Before any thread exists, so that the signals reach sigwait and nobody else.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    VARN::Host::AbilityServer server(SECURITY_PRIVACY_SA_ID, VARN::sptr<CameraService>(new CameraService()));
    if (!server.Start()) {
        return 1;  // an error line says why
    }
    int signal = 0;
    sigwait(&signals, &signal);
    server.Stop();  // finishes the requests that are running
    return 0;
}
