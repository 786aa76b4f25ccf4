// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "security_privacy/contract.h"
#include "security_privacy/security_privacy_service_stub.h"
#include "varn/message_parcel.h"
#include "varn/ref_base.h"
#include "varn/remote_object.h"
#include "varn/system_ability_manager.h"

// For unit tests of programs that call the service: a service inside the test's own process. No daemon, no socket, no
// special user, no test framework. Requests take their real road (client, proxy, parcel, stub); only the transport
// between processes is left out.
//
//     FakeServiceScope fake;                                        // from here on the client finds this service
//     FakeAnswer answer;
//     answer.returns = true;
//     fake.Service().SetAnswer(MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE, answer);
//     ... run the code under test ...
//     fake.Service().Calls().at(0).bundleName                       // what it asked for
//     fake.Manager().SetPresence(FakePresence::ABSENT);             // now there is no service to be found
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing {

// Names the operations in what follows.
using MessageCode = SecurityPrivacyServiceIntf::MessageCode;

// The number under which clients look for the service.
constexpr int32_t FAKE_SERVICE_ID = SECURITY_PRIVACY_SA_ID;

// One request as it reached an operation of the service. Arguments that the operation does not have are left empty.
struct FakeCall {
    uint32_t code = 0;                                        // the operation, as a MessageCode
    std::string bundleName;                                   // by app, set
    std::string permissionGroup;                              // by permission, set
    int32_t userId = 0;                                       // by app, by permission
    int32_t uid = 0;                                          // set
    std::unordered_set<std::string> interested;               // by app: permission groups; by permission: bundle names
    Permission::CheckedStateParameter checkedStateParameter;  // set
    Record::PermissionUsageRecordQuery query;                 // summary, timeline
    std::vector<GTokenInfo> gTokenInfos;                      // add
    std::string policyName;                                   // get
    std::vector<std::string> bundleNames;                     // get, remove
};

// What an operation answers. Members that the operation does not have are ignored.
struct FakeAnswer {
    int32_t result = 0;                                                       // all but get
    std::vector<Permission::AppPermissionGroupInfo> appPermissionGroupInfos;  // by app, by permission
    bool returns = false;                                                     // set
    std::vector<Record::PermissionUsageRecord> records;                       // summary, timeline
    GTokenResultWithRet gTokenResultWithRet;                                  // get, with its own result
};

// A service that answers what it is told and remembers what it was asked. Until told otherwise it allows every request
// and answers 0 and nothing. Hold it by `sptr`, or let a `FakeServiceScope` do so.
//
// Thread safety: everything may be called from several threads at once.
class FakeService : public SecurityPrivacyServiceStub {
public:
    // Makes an answer from a call. It runs on the thread of the request, outside of any lock of the fake, so it may
    // take its time, look at the caller, or throw.
    using Responder = std::function<FakeAnswer(const FakeCall& call)>;

    // What the operation of `code` answers from now on.
    void SetAnswer(uint32_t code, FakeAnswer answer)
    {
        SetResponder(code, [answer = std::move(answer)](const FakeCall&) { return answer; });
    }
    // The same, for answers that depend on the call.
    void SetResponder(uint32_t code, Responder responder)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        responders_[code] = std::make_shared<const Responder>(std::move(responder));
    }

    // Every operation now answers `result` (get: as the result's own code) and nothing else; 0 ends this.
    void FailAll(int32_t result)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        failure_ = result;
    }

    // The access check now refuses these codes and no others.
    void SetRefused(std::unordered_set<uint32_t> codes)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        refused_ = std::move(codes);
    }

    // The calls that reached an operation, oldest first.
    std::vector<FakeCall> Calls() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    // The same, and forgets them: for a test that looks at each step by itself.
    std::vector<FakeCall> TakeCalls()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(calls_, {});
    }

    // The codes that the access check was asked about, oldest first.
    std::vector<uint32_t> AccessChecks() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return accessChecks_;
    }

    // What clients call through the stub; a test has no need to.
    bool IsMessageCodeAllowed(uint32_t messageCode) override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        accessChecks_.push_back(messageCode);
        return refused_.count(messageCode) == 0;
    }

    int32_t GetAppPermissionGroupInfosByApp(const std::string& bundleName, int32_t userId,
                                            const std::unordered_set<std::string>& interested,
                                            std::vector<Permission::AppPermissionGroupInfo>& infos) override
    {
        FakeCall call;
        std::tie(call.bundleName, call.userId, call.interested) = std::tie(bundleName, userId, interested);
        return Fill(infos, &FakeAnswer::appPermissionGroupInfos, MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_APP,
                    call);
    }

    int32_t GetAppPermissionGroupInfosByPermission(const std::string& permissionGroup, int32_t userId,
                                                   const std::unordered_set<std::string>& interested,
                                                   std::vector<Permission::AppPermissionGroupInfo>& infos) override
    {
        FakeCall call;
        std::tie(call.permissionGroup, call.userId, call.interested) = std::tie(permissionGroup, userId, interested);
        return Fill(infos, &FakeAnswer::appPermissionGroupInfos,
                    MessageCode::GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION, call);
    }

    int32_t SetAppPermissionGroupCheckedState(const std::string& bundleName, int32_t uid,
                                              const std::string& permissionGroup,
                                              const Permission::CheckedStateParameter& parameter,
                                              bool& returns) override
    {
        FakeCall call;
        std::tie(call.bundleName, call.uid, call.permissionGroup) = std::tie(bundleName, uid, permissionGroup);
        call.checkedStateParameter = parameter;
        const FakeAnswer answer = Answer(MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE, call);
        returns = answer.returns;
        return answer.result;
    }

    int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery& query,
                                      std::vector<Record::PermissionUsageRecord>& records) override
    {
        FakeCall call;
        call.query = query;
        return Fill(records, &FakeAnswer::records, MessageCode::GET_PERMISSION_USAGE_RECORD_SUMMARY, call);
    }

    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery& query,
                                       std::vector<Record::PermissionUsageRecord>& records) override
    {
        FakeCall call;
        call.query = query;
        return Fill(records, &FakeAnswer::records, MessageCode::GET_PERMISSION_USAGE_RECORD_TIMELINE, call);
    }

    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>& gTokenInfos) override
    {
        FakeCall call;
        call.gTokenInfos = gTokenInfos;
        return Answer(MessageCode::GTOKEN_POLICY_ADD_POLICY, call).result;
    }

    GTokenResultWithRet GTokenPolicyGetPolicy(std::string policyName,
                                              const std::vector<std::string>& bundleNames) override
    {
        FakeCall call;
        std::tie(call.policyName, call.bundleNames) = std::tie(policyName, bundleNames);
        return Answer(MessageCode::GTOKEN_POLICY_GET_POLICY, call).gTokenResultWithRet;
    }

    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>& bundleNames) override
    {
        FakeCall call;
        call.bundleNames = bundleNames;
        return Answer(MessageCode::GTOKEN_POLICY_REMOVE_POLICY, call).result;
    }

private:
    // Notes the call and makes its answer.
    FakeAnswer Answer(uint32_t code, FakeCall& call)
    {
        call.code = code;
        std::unique_lock<std::mutex> lock(mutex_);
        calls_.push_back(call);
        if (failure_ != 0) {
            FakeAnswer answer;
            answer.gTokenResultWithRet.ret = answer.result = failure_;
            return answer;
        }
        const std::shared_ptr<const Responder> responder = responders_[code];
        lock.unlock();
        return responder ? (*responder)(call) : FakeAnswer();
    }

    // The same for an operation that fills `list`.
    template <class Element>
    int32_t Fill(std::vector<Element>& list, std::vector<Element> FakeAnswer::*elements, uint32_t code, FakeCall& call)
    {
        const FakeAnswer answer = Answer(code, call);
        list.insert(list.end(), (answer.*elements).begin(), (answer.*elements).end());
        return answer.result;
    }

    mutable std::mutex mutex_;  // guards everything below; not held while a responder runs
    std::unordered_map<uint32_t, std::shared_ptr<const Responder>> responders_;
    int32_t failure_ = 0;
    std::unordered_set<uint32_t> refused_;
    std::vector<FakeCall> calls_;
    std::vector<uint32_t> accessChecks_;
};

// How the service is found.
enum class FakePresence {
    HERE,    // it answers
    ABSENT,  // nothing is found: requests return 0
    DEAD,    // what is found is known to be dead: requests return 0
    DYING,   // it dies after it was found: requests return -1
};

// A system ability manager that knows one object, by the service's number.
//
// Thread safety: everything may be called from several threads at once.
class FakeServiceManager : public ISystemAbilityManager {
public:
    // What one lookup asked for.
    struct Lookup {
        // As they were asked.
        int32_t systemAbilityId;
        int32_t timeoutSeconds;
    };

    // `object` is usually a `FakeService`; null is found as nothing.
    explicit FakeServiceManager(sptr<IRemoteObject> object) : object_(std::move(object)) {}

    // How the object is found from now on; at first it is here.
    void SetPresence(FakePresence presence)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        presence_ = presence;
    }

    // What was looked for, oldest first.
    std::vector<Lookup> Lookups() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lookups_;
    }

    // Answers at once, whatever the timeout.
    sptr<IRemoteObject> LoadSystemAbility(int32_t systemAbilityId, int32_t timeoutSeconds) override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lookups_.push_back({systemAbilityId, timeoutSeconds});
        if (systemAbilityId != FAKE_SERVICE_ID || presence_ == FakePresence::ABSENT) {
            return nullptr;
        }
        if (presence_ == FakePresence::HERE) {
            return object_;
        }
        return sptr<IRemoteObject>(new DeadObject(presence_ == FakePresence::DEAD));
    }

private:
    class DeadObject : public IRemoteObject {
    public:
        explicit DeadObject(bool isKnown) : isKnown_(isKnown) {}
        int32_t SendRequest(uint32_t, MessageParcel&, MessageParcel&, MessageOption&) override
        {
            return IPC_DEAD_OBJECT;
        }
        bool IsObjectDead() const override { return isKnown_; }

    private:
        const bool isKnown_;
    };

    const sptr<IRemoteObject> object_;
    mutable std::mutex mutex_;  // guards what is below
    FakePresence presence_ = FakePresence::HERE;
    std::vector<Lookup> lookups_;
};

// While it exists, the client of this process finds a `FakeService`; afterwards, what it found before. Not to be nested
// across threads: there is one manager in a process.
class FakeServiceScope {
public:
    // Puts `service` in the place of the real one.
    explicit FakeServiceScope(sptr<FakeService> service = sptr<FakeService>(new FakeService()))
        : service_(std::move(service)),
          manager_(new FakeServiceManager(service_)),
          previous_(SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager())
    {
        SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(manager_);
    }
    // Puts back what was there before.
    ~FakeServiceScope() { SystemAbilityManagerClient::GetInstance().SetSystemAbilityManager(previous_); }

    FakeServiceScope(const FakeServiceScope&) = delete;
    FakeServiceScope& operator=(const FakeServiceScope&) = delete;

    // Both live as long as the scope.
    FakeService& Service() const { return *service_; }
    FakeServiceManager& Manager() const { return *manager_; }

private:
    const sptr<FakeService> service_;
    const sptr<FakeServiceManager> manager_;
    const sptr<ISystemAbilityManager> previous_;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Testing
