// SPDX-License-Identifier: Apache-2.0
#include "bench/contenders/library.h"

#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

namespace bench {
namespace {

void Check(int32_t result)
{
    if (result != 0) {
        throw std::runtime_error("the request failed: " + std::to_string(result));
    }
}

template <class Record, class Plain>
std::vector<Record> ToRecords(const std::vector<Plain>& plain)
{
    std::vector<Record> records(plain.size());
    for (size_t index = 0; index < plain.size(); ++index) {
        Copy(plain[index], records[index]);
    }
    return records;
}

class LibraryService final : public SecurityPrivacyServiceStub {
public:
    explicit LibraryService(const Answers& answers)
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
    int32_t GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery&,
                                      std::vector<Record::PermissionUsageRecord>&) override
    {
        return 0;
    }
    int32_t GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery&,
                                       std::vector<Record::PermissionUsageRecord>& records) override
    {
        records = usages_;
        return 0;
    }
    int32_t GTokenPolicyAddPolicy(const std::vector<GTokenInfo>&) override { return 0; }
    GTokenResultWithRet GTokenPolicyGetPolicy(std::string, const std::vector<std::string>&) override { return rows_; }
    int32_t GTokenPolicyRemovePolicy(const std::vector<std::string>&) override { return 0; }

private:
    const std::vector<Permission::AppPermissionGroupInfo> infos_;
    const std::vector<Record::PermissionUsageRecord> usages_;
    GTokenResultWithRet rows_;
};

}  // namespace

Permission::CheckedStateParameter ToParameter(const SetRequest& request)
{
    Permission::CheckedStateParameter parameter;
    parameter.checkedState = request.checkedState;
    parameter.flagsMask = request.flagsMask;
    parameter.flagsValue = request.flagsValue;
    return parameter;
}

Record::PermissionUsageRecordQuery ToQuery(const UsageRequest& request)
{
    Record::PermissionUsageRecordQuery query;
    query.SetBundleNames(request.bundleNames);
    query.SetUserIds(request.userIds);
    query.SetOperationGroups(request.operationGroups);
    query.SetBeginTimestamp(request.beginTimestamp);
    query.SetEndTimestamp(request.endTimestamp);
    query.SetLimit(request.limit);
    query.SetOrder(request.order);
    return query;
}

void Copy(const Usage& from, Record::PermissionUsageRecord& to)
{
    to.SetBundleName(from.bundleName);
    to.SetUid(from.uid);
    to.SetOperationGroup(from.operationGroup);
    to.SetTimes(from.times);
    to.SetOperationMode(from.operationMode);
    to.SetAppState(from.appState);
    to.SetScreenState(from.screenState);
    to.SetBeginTimestamp(from.beginTimestamp);
    to.SetEndTimestamp(from.endTimestamp);
}

void LibraryPeer::Copy(const UsageType& from, Usage& to)
{
    to = {from.GetBundleName(),    from.GetUid(),      from.GetOperationGroup(), from.GetTimes(),
          from.GetOperationMode(), from.GetAppState(), from.GetScreenState(),    from.GetBeginTimestamp(),
          from.GetEndTimestamp()};
}

void LibraryPeer::Ask(const InfoRequest& request, std::vector<InfoType>& infos)
{
    Check(request.isByPermission
              ? client_.GetAppPermissionGroupInfosByPermission(request.name, request.userId, request.interested, infos)
              : client_.GetAppPermissionGroupInfosByApp(request.name, request.userId, request.interested, infos));
}

void LibraryPeer::Ask(const SetRequest& request, bool& isSet)
{
    Check(client_.SetAppPermissionGroupCheckedState(request.bundleName, request.uid, request.permissionGroup,
                                                    ToParameter(request), isSet));
}

void LibraryPeer::Ask(const UsageRequest& request, std::vector<UsageType>& usages)
{
    Check(client_.GetPermissionUsageTimeline(ToQuery(request), usages));
}

void LibraryPeer::Ask(const RowRequest& request, std::vector<RowType>& rows)
{
    rows = client_.GTokenPolicyGetPolicy(request.policyName, request.bundleNames).gTokenResults;
}

VARN::sptr<VARN::IPCObjectStub> MakeLibraryService(const Workload& workload)
{
    return VARN::sptr<VARN::IPCObjectStub>(new LibraryService(Answers(workload)));
}

}  // namespace bench
