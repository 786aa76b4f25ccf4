// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/security_privacy_client.h"

#include <exception>
#include <functional>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "security_privacy/connect.h"
#include "security_privacy/contract.h"
#include "util/format_utils.h"
#include "util/log_line.h"
#include "varn/remote_broker.h"
#include "varn/remote_object.h"
#include "varn/system_ability_manager.h"
#if __has_include("varn/fork_handler.h")
#include "varn/fork_handler.h"
#define HAS_FORKS  // a platform without processes need not bring that header
#endif

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

namespace {

using Util::FormatUtils::Text;

using Intf = SecurityPrivacyServiceIntf;

const auto LOG_TAG = Util::KelLog::Tag::Create("service");

// What finds the service and what is found, all held until a request is over.
struct Found {
    sptr<ISystemAbilityManager> manager;
    sptr<IRemoteObject> object;
    sptr<Intf> proxy;
    ConnectError error = ConnectError::NO_MANAGER;  // of the step that failed, also when it threw
};

// Looks the service up, each time anew: it may have been restarted. The lines bear the name of `function`.
void LookUp(const char* function, int32_t timeoutSeconds, Found& found)
{
    found.manager = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    if (found.manager == nullptr) {
        LOG_ERROR_AS(function, "SAM is nullptr, please check.");
        return;
    }
    found.error = ConnectError::NO_SERVICE;
    found.object = found.manager->LoadSystemAbility(SECURITY_PRIVACY_SA_ID, timeoutSeconds);
    if (found.object == nullptr) {
        LOG_ERROR_AS(function, "SA=%s is nullptr, please check.", Text(SECURITY_PRIVACY_SA_ID).c_str());
        return;
    }
    found.error = ConnectError::SERVICE_DEAD;
    if (found.object->IsObjectDead()) {
        LOG_ERROR_AS(function, "SA is IsObjectDead, why load system ability return a dead SA?");
        return;
    }
    found.error = ConnectError::NO_PROXY;
    // Null when no maker of proxies is registered, or when it made nothing or something else.
    const sptr<IRemoteBroker> broker = BrokerRegistration::Get().NewInstance(Intf::GetDescriptor(), found.object);
    found.proxy = dynamic_cast<Intf*>(broker.Get());
    if (found.proxy == nullptr) {
        LOG_ERROR_AS(function, "iface_cast SA=%s is nullptr, there is nothing we can do.",
                     Text(SECURITY_PRIVACY_SA_ID).c_str());
        return;
    }
    found.error = ConnectError::NONE;
    LOG_DEBUG_AS(function, "LoadSystemAbility succeed");
}

// The name in the lines of the client's lookup, whichever request it is for.
constexpr char CLIENT_LOOKUP[] = "WithSystemAbilityProxy";

// How often this thread holds the client's lock: the child of a fork inside a callback holds it as often.
thread_local int holds = 0;

struct Hold {
    explicit Hold(std::recursive_mutex& mutex) : lock(mutex) { ++holds; }
    ~Hold() { --holds; }

    const std::lock_guard<std::recursive_mutex> lock;
};

// Runs `act` and says whether it came to its end: no exception leaves the library, whatever throws it; most often
// memory has run out. The error line names `method`.
template <class Act>
bool Attempt(const char* method, const Act& act) noexcept
{
    try {
        act();
        return true;
    } catch (const std::bad_alloc&) {
        LOG_ERROR_AS(method, "out of memory.");
    } catch (const std::exception& exception) {
        LOG_ERROR_AS(method, "an exception came back: %s", exception.what());
    } catch (...) {
        LOG_ERROR_AS(method, "an exception of unknown type came back.");
    }
    return false;
}

// What `operation` of the service returns for `arguments`, or the default of its result, 0, when there is no service:
// callers that need to tell that from success use `Connect`. The error lines name `method`.
template <class Operation, class... Arguments>
auto Request(std::recursive_mutex& mutex, const char* method, Operation operation, Arguments&&... arguments)
{
    std::invoke_result_t<Operation, Intf&, Arguments...> result{};
    const bool isDone = Attempt(method, [&] {
        const Hold hold(mutex);
        Found found;
        LookUp(CLIENT_LOOKUP, SA_LOAD_TIMEOUT, found);
        if (found.proxy == nullptr) {
            LOG_ERROR_AS(method, "proxy is nullptr, please check.");
        } else {
            result = std::invoke(operation, *found.proxy, std::forward<Arguments>(arguments)...);
        }
    });
    if constexpr (std::is_same_v<decltype(result), int32_t>) {
        return isDone ? result : RESULT_TRANSPORT_FAILED;
    } else {
        result.ret = isDone ? result.ret : RESULT_TRANSPORT_FAILED;
        return result;
    }
}

void LogRecords(const char* method, const std::vector<Record::PermissionUsageRecord>& records)
{
    Attempt(method, [&] {
        for (const Record::PermissionUsageRecord& record : records) {
            LOG_DEBUG_AS(method, "%s", record.ToString().c_str());
        }
    });
}

}  // namespace

SecurityPrivacyClient& SecurityPrivacyClient::GetInstance()
{
    static SecurityPrivacyClient instance;
#if defined(HAS_FORKS)
    // A fork does not wait for a request that holds the lock, which may take seconds: the child makes it anew.
    static const ForkHandler renewal(ForkHandler::Rank::LIBRARY, {nullptr, nullptr, [] {
                                                                      new (&instance.mutex_) std::recursive_mutex;
                                                                      for (int count = 0; count < holds; ++count) {
                                                                          instance.mutex_.lock();
                                                                      }
                                                                  }});
#endif
    return instance;
}

void SecurityPrivacyClient::WithSystemAbilityProxy(
    const std::function<void(const sptr<SecurityPrivacyServiceIntf>&)>& callback)
{
    // Held to the end, the callback and with it the whole call included.
    const Hold hold(mutex_);

    Found found;
    Attempt(CLIENT_LOOKUP, [&] { LookUp(CLIENT_LOOKUP, SA_LOAD_TIMEOUT, found); });
    callback(found.proxy);
}

int32_t SecurityPrivacyClient::GetAppPermissionGroupInfosByApp(
    const std::string& bundleName, int32_t userId, const std::unordered_set<std::string>& interestedPermissionGroups,
    std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return Request(mutex_, __func__, &Intf::GetAppPermissionGroupInfosByApp, bundleName, userId,
                   interestedPermissionGroups, appPermissionGroupInfos);
}

int32_t SecurityPrivacyClient::GetAppPermissionGroupInfosByPermission(
    const std::string& permissionGroup, int32_t userId, const std::unordered_set<std::string>& interestedBundleNames,
    std::vector<Permission::AppPermissionGroupInfo>& appPermissionGroupInfos)
{
    return Request(mutex_, __func__, &Intf::GetAppPermissionGroupInfosByPermission, permissionGroup, userId,
                   interestedBundleNames, appPermissionGroupInfos);
}

int32_t SecurityPrivacyClient::SetAppPermissionGroupCheckedState(
    const std::string& bundleName, int32_t uid, const std::string& permissionGroup,
    const Permission::CheckedStateParameter& checkedStateParameter, bool& returns)
{
    return Request(mutex_, __func__, &Intf::SetAppPermissionGroupCheckedState, bundleName, uid, permissionGroup,
                   checkedStateParameter, returns);
}

int32_t SecurityPrivacyClient::GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery& query,
                                                         std::vector<Record::PermissionUsageRecord>& records)
{
    // The error line bears the timeline's name here too: a search of a log for it finds both requests.
    const int32_t result =
        Request(mutex_, "GetPermissionUsageTimeline", &Intf::GetPermissionUsageSummary, query, records);
    LogRecords(__func__, records);
    return result;
}

int32_t SecurityPrivacyClient::GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery& query,
                                                          std::vector<Record::PermissionUsageRecord>& records)
{
    const int32_t result = Request(mutex_, __func__, &Intf::GetPermissionUsageTimeline, query, records);
    LogRecords(__func__, records);
    return result;
}

int32_t SecurityPrivacyClient::GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos)
{
    LOG_INFO("GTokenPolicySdkAdaptor AddPolicy called");
    return Request(mutex_, __func__, &Intf::GTokenPolicyAddPolicy, gTokenInfos);
}

GTokenResultWithRet SecurityPrivacyClient::GTokenPolicyGetPolicy(std::string policyName,
                                                                 const std::vector<std::string>& bundleNames)
{
    LOG_INFO("GTokenPolicySdkAdaptor GetPolicy called");
    return Request(mutex_, __func__, &Intf::GTokenPolicyGetPolicy, std::move(policyName), bundleNames);
}

int32_t SecurityPrivacyClient::GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames)
{
    LOG_INFO("GTokenPolicySdkAdaptor RemovePolicy called");
    return Request(mutex_, __func__, &Intf::GTokenPolicyRemovePolicy, bundleNames);
}

ConnectResult Connect(int32_t timeoutSeconds)
{
    Found found;
    Attempt("Connect", [&] { LookUp("Connect", timeoutSeconds, found); });
    return {found.proxy, found.error};
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
