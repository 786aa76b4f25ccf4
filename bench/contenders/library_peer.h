// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/contenders/library_records.h"
#include "bench/typed_client.h"
#include "security_privacy/security_privacy_client.h"

namespace bench {

// Speaks through the client singleton to whatever service the ability manager finds; the directory is for the manager.
class LibraryPeer {
public:
    using Info = Permission::AppPermissionGroupInfo;
    using Usage = Record::PermissionUsageRecord;
    using Row = GTokenResult;

    explicit LibraryPeer(const std::string&) {}

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
    static void Check(int32_t result)
    {
        if (result != 0) {
            throw std::runtime_error("the request failed: " + std::to_string(result));
        }
    }

    SecurityPrivacyClient& client_ = SecurityPrivacyClient::GetInstance();
};

}  // namespace bench
