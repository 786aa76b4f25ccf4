// SPDX-License-Identifier: Apache-2.0
#include "bench/contenders/library_records.h"

#include <string>
#include <unordered_set>
#include <vector>

#include "security_privacy/security_privacy_service_stub.h"

namespace bench {
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
    return {record.GetBundleName(),    record.GetUid(),      record.GetOperationGroup(), record.GetTimes(),
            record.GetOperationMode(), record.GetAppState(), record.GetScreenState(),    record.GetBeginTimestamp(),
            record.GetEndTimestamp()};
}

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
                                      std::vector<Record::PermissionUsageRecord>& records) override
    {
        records = usages_;
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

VARN::sptr<VARN::IPCObjectStub> MakeLibraryService(const Workload& workload)
{
    return VARN::sptr<VARN::IPCObjectStub>(new LibraryService(Answers(workload)));
}

}  // namespace bench
