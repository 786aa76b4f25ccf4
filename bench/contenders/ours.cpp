// SPDX-License-Identifier: Apache-2.0
// This project: the client singleton on one side, a stub behind an ability server on the other.
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "bench/typed_client.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/testing/fake_service.h"
#include "varn/host/ability_server.h"

namespace bench {

using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;

// The library's usage record has its fields behind getters.
template <>
auto FieldsOf<Usage>(const Record::PermissionUsageRecord& record)
{
    return std::make_tuple(record.GetBundleName(), record.GetUid(), record.GetOperationGroup(), record.GetTimes(),
                           record.GetOperationMode(), record.GetAppState(), record.GetScreenState(),
                           record.GetBeginTimestamp(), record.GetEndTimestamp());
}

namespace {

// The measurements of many connections open a thousand as one user.
constexpr size_t kConnections = 4096;

template <class Record, class Plain>
Record ToRecord(const Plain& plain)
{
    Record record;
    Plain::Fields(record) = Plain::Fields(plain);
    return record;
}
template <>
Record::PermissionUsageRecord ToRecord(const Usage& plain)
{
    Record::PermissionUsageRecord record;
    record.SetBundleName(plain.bundleName);
    record.SetUid(plain.uid);
    record.SetOperationGroup(plain.operationGroup);
    record.SetTimes(plain.times);
    record.SetOperationMode(plain.operationMode);
    record.SetAppState(plain.appState);
    record.SetScreenState(plain.screenState);
    record.SetBeginTimestamp(plain.beginTimestamp);
    record.SetEndTimestamp(plain.endTimestamp);
    return record;
}

template <class Record, class Plain>
std::vector<Record> ToRecords(const std::vector<Plain>& plain)
{
    std::vector<Record> records(plain.size());
    std::transform(plain.begin(), plain.end(), records.begin(), ToRecord<Record, Plain>);
    return records;
}

// Lets everybody in and gives out the records of the workload. The interface has it fill a list of the stub's, so every
// request pays for a copy of them: no other contender does but `floor-list`. The operations that are not measured
// remain the fake's.
class Service final : public Testing::FakeService {
public:
    explicit Service(const Answers& answers)
        : infos_(ToRecords<Permission::AppPermissionGroupInfo>(answers.infos)),
          usages_(ToRecords<Record::PermissionUsageRecord>(answers.usages))
    {
        rows_.gTokenResults = ToRecords<GTokenResult>(answers.rows);
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
    explicit Peer(const std::string& directory) { setenv("VARN_ABILITY_DIR", directory.c_str(), 1); }

    auto Ask(const InfoRequest& request)
    {
        std::vector<Permission::AppPermissionGroupInfo> infos;
        Check(request.isByPermission
                  ? client_.GetAppPermissionGroupInfosByPermission(request.name, request.userId, request.interested,
                                                                   infos)
                  : client_.GetAppPermissionGroupInfosByApp(request.name, request.userId, request.interested, infos));
        return infos;
    }
    auto Ask(const SetRequest& request)
    {
        Permission::CheckedStateParameter parameter;
        parameter.checkedState = request.checkedState;
        parameter.flagsMask = request.flagsMask;
        parameter.flagsValue = request.flagsValue;
        bool isSet = false;
        Check(client_.SetAppPermissionGroupCheckedState(request.bundleName, request.uid, request.permissionGroup,
                                                        parameter, isSet));
        return isSet;
    }
    auto Ask(const UsageRequest& request)
    {
        Record::PermissionUsageRecordQuery query;
        query.SetBundleNames(request.bundleNames);
        query.SetUserIds(request.userIds);
        query.SetOperationGroups(request.operationGroups);
        query.SetBeginTimestamp(request.beginTimestamp);
        query.SetEndTimestamp(request.endTimestamp);
        query.SetLimit(request.limit);
        query.SetOrder(request.order);
        std::vector<Record::PermissionUsageRecord> usages;
        Check(client_.GetPermissionUsageTimeline(query, usages));
        return usages;
    }
    auto Ask(const RowRequest& request)
    {
        return client_.GTokenPolicyGetPolicy(request.policyName, request.bundleNames).gTokenResults;
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

void Serve(const std::string& directory, const Workload& workload)
{
    VARN::Host::AbilityServerOptions options;
    options.directory = directory;
    options.maxConnections = kConnections;
    options.maxConnectionsPerUser = kConnections;
    const VARN::sptr<Service> service(new Service(Answers(workload)));
    VARN::Host::AbilityServer server(SECURITY_PRIVACY_SA_ID, service, options);
    if (!server.Start()) {
        throw std::runtime_error("the server does not start");
    }
    AnnounceReady();
    for (;;) {
        pause();
    }
}

std::unique_ptr<Client> Connect(const std::string& directory, const Workload& workload)
{
    return MakeClient<Peer>(directory, workload);
}

}  // namespace bench
