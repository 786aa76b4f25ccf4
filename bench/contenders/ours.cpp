// SPDX-License-Identifier: Apache-2.0
// This project: the client singleton on one side, a stub behind an ability server on the other.
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <unistd.h>

#include "bench/contenders/library_records.h"
#include "bench/typed_client.h"
#include "security_privacy/security_privacy_client.h"
#include "varn/host/ability_server.h"

namespace bench {
namespace {

// The id under which the library looks for its service.
constexpr int32_t kAbilityId = 65993;
// The measurement of idle connections opens a thousand as one user.
constexpr size_t kConnections = 4096;

void Check(int32_t result)
{
    if (result != 0) {
        throw std::runtime_error("the request failed: " + std::to_string(result));
    }
}

class OurPeer {
public:
    using Info = Permission::AppPermissionGroupInfo;
    using Usage = Record::PermissionUsageRecord;
    using Row = GTokenResult;

    explicit OurPeer(const std::string& directory) { setenv("VARN_ABILITY_DIR", directory.c_str(), 1); }

    void ByApp(const InfoRequest& request, std::vector<Info>& infos)
    {
        Check(client_.GetAppPermissionGroupInfosByApp(request.name, request.userId, request.interested, infos));
    }
    void ByPermission(const InfoRequest& request, std::vector<Info>& infos)
    {
        Check(client_.GetAppPermissionGroupInfosByPermission(request.name, request.userId, request.interested, infos));
    }
    bool SetCheckedState(const SetRequest& request)
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
    void Timeline(const UsageRequest& request, std::vector<Usage>& usages)
    {
        Record::PermissionUsageRecordQuery query;
        query.SetBundleNames(request.bundleNames);
        query.SetUserIds(request.userIds);
        query.SetOperationGroups(request.operationGroups);
        query.SetBeginTimestamp(request.beginTimestamp);
        query.SetEndTimestamp(request.endTimestamp);
        query.SetLimit(request.limit);
        query.SetOrder(request.order);
        Check(client_.GetPermissionUsageTimeline(query, usages));
    }
    void GetPolicy(const RowRequest& request, std::vector<Row>& rows)
    {
        rows = client_.GTokenPolicyGetPolicy(request.policyName, request.bundleNames).gTokenResults;
    }

    static bench::Usage ToPlain(const Usage& usage) { return bench::ToPlain(usage); }

private:
    SecurityPrivacyClient& client_ = SecurityPrivacyClient::GetInstance();
};

}  // namespace

void Serve(const std::string& directory, const Workload& workload)
{
    VARN::Host::AbilityServerOptions options;
    options.directory = directory;
    options.maxConnections = kConnections;
    options.maxConnectionsPerUser = kConnections;
    const Answers answers(workload);
    VARN::Host::AbilityServer server(kAbilityId, VARN::sptr<VARN::IPCObjectStub>(new LibraryService(answers)), options);
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
    return std::make_unique<TypedClient<OurPeer>>(directory, workload);
}

}  // namespace bench
