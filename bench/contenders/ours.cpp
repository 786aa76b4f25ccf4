// SPDX-License-Identifier: Apache-2.0
// This project: the client singleton on one side, a stub behind an ability server on the other.
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "bench/harness.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "varn/host/ability_server.h"

namespace bench {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

template <>
decltype(auto) FieldsOf(Permission::AppPermissionGroupInfo& record)
{
    return std::tie(record.bundleName, record.uid, record.permissionGroup, record.checkedState, record.shownStates,
                    record.disabledStates, record.disabledReason, record.flags);
}
template <>
decltype(auto) FieldsOf(Record::PermissionUsageRecord& record)
{
    return std::make_tuple(record.GetBundleName(), record.GetUid(), record.GetOperationGroup(), record.GetTimes(),
                           record.GetOperationMode(), record.GetAppState(), record.GetScreenState(),
                           record.GetBeginTimestamp(), record.GetEndTimestamp());
}
template <>
decltype(auto) FieldsOf(GTokenResult& record)
{
    return std::tie(record.bundleName, record.fingerprint, record.versionCode, record.policyValue);
}

namespace {

// The measurements of many connections open a thousand as one user.
constexpr size_t kConnections = 4096;

template <class Plain, class Record>
void Assign(const Plain& plain, Record& record)
{
    FieldsOf(record) = plain;
}
void Assign(const Usage& plain, Record::PermissionUsageRecord& record)
{
    const auto& [bundleName, uid, operationGroup, times, operationMode, appState, screenState, begin, end] = plain;
    record.SetBundleName(bundleName);
    record.SetUid(uid);
    record.SetOperationGroup(operationGroup);
    record.SetTimes(times);
    record.SetOperationMode(operationMode);
    record.SetAppState(appState);
    record.SetScreenState(screenState);
    record.SetBeginTimestamp(begin);
    record.SetEndTimestamp(end);
}

template <class Record, class Plain>
std::vector<Record> ToRecords(const std::vector<Plain>& plain)
{
    std::vector<Record> records(plain.size());
    for (size_t index = 0; index < plain.size(); ++index) {
        Assign(plain[index], records[index]);
    }
    return records;
}

// Lets everybody in and gives out the records of the workload. The interface has it fill a list of the stub's, so every
// request pays for a copy of them: no other contender does but `floor-list`. The operations that are not measured
// remain the fake's.
class Service final : public Testing::FakeService {
public:
    explicit Service(const Answers& answers)
        : infos_(ToRecords<Permission::AppPermissionGroupInfo>(std::get<std::vector<Info>>(answers))),
          usages_(ToRecords<Record::PermissionUsageRecord>(std::get<std::vector<Usage>>(answers)))
    {
        rows_.gTokenResults = ToRecords<GTokenResult>(std::get<std::vector<Row>>(answers));
    }

    bool IsMessageCodeAllowed(uint32_t) override { return true; }

    int32_t GetAppPermissionGroupInfosByApp(const std::string&, int32_t, const std::unordered_set<std::string>&,
                                            std::vector<Permission::AppPermissionGroupInfo>& infos) override
    {
        infos = infos_;
        return 0;
    }
    int32_t GetAppPermissionGroupInfosByPermission(const std::string&, int32_t, const std::unordered_set<std::string>&,
                                                   std::vector<Permission::AppPermissionGroupInfo>& infos) override
    {
        infos = infos_;
        return 0;
    }
    int32_t SetAppPermissionGroupCheckedState(const std::string&, int32_t, const std::string&,
                                              const Permission::CheckedStateParameter&, bool& returns) override
    {
        returns = true;
        return 0;
    }
    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery&,
                                       std::vector<Record::PermissionUsageRecord>& records) override
    {
        records = usages_;
        return 0;
    }
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string, const std::vector<std::string>&) override { return rows_; }

private:
    const std::vector<Permission::AppPermissionGroupInfo> infos_;
    const std::vector<Record::PermissionUsageRecord> usages_;
    GTokenResultWithRet rows_;
};

class Peer {
public:
    explicit Peer(const Workload& workload) { setenv("VARN_ABILITY_DIR", workload.directory.c_str(), 1); }

    auto Ask(const InfoRequest& request)
    {
        const auto& [name, userId, interested] = request.arguments;
        std::vector<Permission::AppPermissionGroupInfo> infos;
        Check(request.isByPermission ? client_.GetAppPermissionGroupInfosByPermission(name, userId, interested, infos)
                                     : client_.GetAppPermissionGroupInfosByApp(name, userId, interested, infos));
        return infos;
    }
    auto Ask(const SetRequest& request)
    {
        Permission::CheckedStateParameter parameter;
        const auto& [bundleName, uid, permissionGroup, state, mask, value] = request.arguments;
        parameter.checkedState = state;
        parameter.flagsMask = mask;
        parameter.flagsValue = value;
        bool isSet = false;
        Check(client_.SetAppPermissionGroupCheckedState(bundleName, uid, permissionGroup, parameter, isSet));
        return isSet;
    }
    auto Ask(const UsageRequest& request)
    {
        Record::PermissionUsageRecordQuery query;
        const auto& [bundleNames, userIds, operationGroups, begin, end, limit, order] = request.arguments;
        query.SetBundleNames(bundleNames);
        query.SetUserIds(userIds);
        query.SetOperationGroups(operationGroups);
        query.SetBeginTimestamp(begin);
        query.SetEndTimestamp(end);
        query.SetLimit(limit);
        query.SetOrder(order);
        std::vector<Record::PermissionUsageRecord> usages;
        Check(client_.GetPermissionUsageTimeline(query, usages));
        return usages;
    }
    auto Ask(const RowRequest& request)
    {
        const auto& [policyName, bundleNames] = request.arguments;
        return client_.GTokenPolicyGetPolicy(policyName, bundleNames).gTokenResults;
    }

private:
    static void Check(int32_t result)
    {
        if (result != 0) {
            throw std::runtime_error("the request failed: " + std::to_string(result));
        }
    }

    SecurityPrivacyClient& client_ = SecurityPrivacyClient::GetInstance();
};

}  // namespace

void Serve(const Workload& workload)
{
    VARN::Host::AbilityServerOptions options;
    options.directory = workload.directory;
    options.maxConnections = kConnections;
    options.maxConnectionsPerUser = kConnections;
    const VARN::sptr<Service> service(new Service(MakeAnswers(workload)));
    VARN::Host::AbilityServer server(SECURITY_PRIVACY_SA_ID, service, options);
    if (!server.Start()) {
        throw std::runtime_error("the server does not start");
    }
    AnnounceReady();
    for (;;) {
        pause();
    }
}

void Connect(const Workload& workload)
{
    RunClient<Peer, InfoRequest, SetRequest, UsageRequest, RowRequest>(workload);
}

}  // namespace bench
