// SPDX-License-Identifier: Apache-2.0
#include "bench/contenders/library_records.h"

namespace bench {
namespace {

template <class Record, class Plain>
std::vector<Record> ToRecords(const std::vector<Plain>& plain)
{
    std::vector<Record> records;
    records.reserve(plain.size());
    for (const Plain& one : plain) {
        records.push_back(ToRecord(one));
    }
    return records;
}

}  // namespace

Permission::AppPermissionGroupInfo ToRecord(const Info& info)
{
    Permission::AppPermissionGroupInfo record;
    record.bundleName = info.bundleName;
    record.uid = info.uid;
    record.permissionGroup = info.permissionGroup;
    record.checkedState = info.checkedState;
    record.shownStates = info.shownStates;
    record.disabledStates = info.disabledStates;
    record.disabledReason = info.disabledReason;
    record.flags = info.flags;
    return record;
}

Record::PermissionUsageRecord ToRecord(const Usage& usage)
{
    Record::PermissionUsageRecord record;
    record.SetBundleName(usage.bundleName);
    record.SetUid(usage.uid);
    record.SetOperationGroup(usage.operationGroup);
    record.SetTimes(usage.times);
    record.SetOperationMode(usage.operationMode);
    record.SetAppState(usage.appState);
    record.SetScreenState(usage.screenState);
    record.SetBeginTimestamp(usage.beginTimestamp);
    record.SetEndTimestamp(usage.endTimestamp);
    return record;
}

GTokenResult ToRecord(const Row& row)
{
    GTokenResult record;
    record.bundleName = row.bundleName;
    record.fingerprint = row.fingerprint;
    record.versionCode = row.versionCode;
    record.policyValue = row.policyValue;
    return record;
}

Usage ToPlain(const Record::PermissionUsageRecord& record)
{
    return {record.GetBundleName(),     record.GetUid(),           record.GetOperationGroup(),
            record.GetTimes(),          record.GetOperationMode(), record.GetAppState(),
            record.GetScreenState(),    record.GetBeginTimestamp(), record.GetEndTimestamp()};
}

LibraryService::LibraryService(const Answers& answers)
    : infos_(ToRecords<Permission::AppPermissionGroupInfo>(answers.infos)),
      usages_(ToRecords<Record::PermissionUsageRecord>(answers.usages))
{
    rows_.gTokenResults = ToRecords<GTokenResult>(answers.rows);
}

int32_t LibraryService::GetAppPermissionGroupInfosByApp(const std::string&, int32_t,
                                                        const std::unordered_set<std::string>&,
                                                        std::vector<Permission::AppPermissionGroupInfo>& infos)
{
    infos = infos_;
    return 0;
}

int32_t LibraryService::GetAppPermissionGroupInfosByPermission(const std::string&, int32_t,
                                                               const std::unordered_set<std::string>&,
                                                               std::vector<Permission::AppPermissionGroupInfo>& infos)
{
    infos = infos_;
    return 0;
}

int32_t LibraryService::SetAppPermissionGroupCheckedState(const std::string&, int32_t, const std::string&,
                                                          const Permission::CheckedStateParameter&, bool& returns)
{
    returns = true;
    return 0;
}

int32_t LibraryService::GetPermissionUsageSummary(const Record::PermissionUsageRecordQuery&,
                                                  std::vector<Record::PermissionUsageRecord>& records)
{
    records = usages_;
    return 0;
}

int32_t LibraryService::GetPermissionUsageTimeline(const Record::PermissionUsageRecordQuery&,
                                                   std::vector<Record::PermissionUsageRecord>& records)
{
    records = usages_;
    return 0;
}

int32_t LibraryService::GTokenPolicyAddPolicy(const std::vector<GTokenInfo>&)
{
    return 0;
}

GTokenResultWithRet LibraryService::GTokenPolicyGetPolicy(std::string, const std::vector<std::string>&)
{
    return rows_;
}

int32_t LibraryService::GTokenPolicyRemovePolicy(const std::vector<std::string>&)
{
    return 0;
}

}  // namespace bench
