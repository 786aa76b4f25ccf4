// SPDX-License-Identifier: Apache-2.0
#include "service/policies.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "common/result_codes.h"

namespace SecurityPrivacyTools {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenPolicy;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResult;

namespace {

// Names that a log and a table can hold as they are, and no longer than an answer can repeat.
int32_t CheckName(const std::string& name, size_t maxBytes)
{
    const bool isGood = !name.empty() && std::all_of(name.begin(), name.end(), [](char character) {
        return character > ' ' && character <= '~';
    });
    if (!isGood) {
        return RESULT_BAD_NAME;
    }
    return name.size() > maxBytes ? RESULT_TOO_LONG : RESULT_OK;
}

int32_t CheckNames(const GTokenInfo& info)
{
    int32_t result = CheckName(info.bundleName, MAX_NAME_BYTES);
    if (result == RESULT_OK) {
        result = CheckName(info.fingerprint, MAX_FINGERPRINT_BYTES);
    }
    for (auto policy = info.policies.begin(); policy != info.policies.end() && result == RESULT_OK; ++policy) {
        result = CheckName(policy->policyName, MAX_NAME_BYTES);
    }
    return result;
}

}  // namespace

int32_t AddPolicies(Connection& connection, const GTokenInfo& info)
{
    const int32_t result = CheckNames(info);
    if (result != RESULT_OK) {
        return result;
    }
    SQLite::Statement& add = connection.Prepare(
        "INSERT INTO bundle (name, fingerprint, version_code) VALUES (?, ?, ?) ON CONFLICT DO UPDATE "
        "SET version_code = excluded.version_code WHERE fingerprint = excluded.fingerprint RETURNING id",
        info.bundleName, info.fingerprint, info.versionCode);
    if (!add.executeStep()) {
        return RESULT_FINGERPRINT_MISMATCH;
    }
    for (const GTokenPolicy& policy : info.policies) {
        connection.Run(
            "INSERT INTO policy (bundle, name, value) VALUES (?, ?, ?) "
            "ON CONFLICT DO UPDATE SET value = excluded.value",
            add.getColumn(0).getInt64(), policy.policyName, policy.policyValue);
    }
    return RESULT_OK;
}

int32_t RemovePolicies(Connection& connection, const std::vector<std::string>& bundleNames)
{
    const std::unordered_set<std::string> names(bundleNames.begin(), bundleNames.end());
    for (const std::string& name : names) {
        if (connection.Run("DELETE FROM bundle WHERE name = ?", name) == 0) {
            return RESULT_UNKNOWN_BUNDLE;
        }
    }
    return RESULT_OK;
}

int32_t GetPolicies(Connection& connection, const std::string& policyName, const std::vector<std::string>& bundleNames,
                    bool withFingerprints, std::vector<GTokenResult>& rows)
{
    const std::string sql = std::string("SELECT version_code, value, ") + (withFingerprints ? "fingerprint" : "''") +
                            " FROM bundle JOIN policy ON policy.bundle = bundle.id "
                            "WHERE bundle.name = ? AND policy.name = ?";
    size_t bytes = 0;
    for (const std::string& bundleName : bundleNames) {
        SQLite::Statement& find = connection.Prepare(sql, bundleName, policyName);
        if (!find.executeStep()) {
            continue;
        }
        bytes += bundleName.size() + find.getColumn(2).getString().size();
        if (bytes > MAX_ANSWER_BYTES) {
            return RESULT_ANSWER_TOO_LONG;
        }
        GTokenResult row;
        row.bundleName = bundleName;
        row.versionCode = find.getColumn(0).getInt64();
        row.policyValue = find.getColumn(1).getInt64();
        row.fingerprint = find.getColumn(2).getString();
        rows.push_back(std::move(row));
    }
    return RESULT_OK;
}

}  // namespace SecurityPrivacyTools
