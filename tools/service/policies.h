// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "security_privacy/gtoken_info.h"
#include "security_privacy/gtoken_result.h"
#include "service/database.h"

namespace SecurityPrivacyTools {

// The GToken policies of bundles, inside a transaction of the caller's. The answers are result codes; after another one
// than RESULT_OK the transaction is to be undone. Each throws DatabaseError.

// Stores the policies of a bundle. A stored one keeps its fingerprint, which has to be the same, takes the new version
// code, and a policy of the same name is replaced.
int32_t AddPolicies(Connection& connection, const VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenInfo& info);

// Forgets the bundles; a name that is given twice counts once.
int32_t RemovePolicies(Connection& connection, const std::vector<std::string>& bundleNames);

// A row for each of the bundles that has the policy, in the order of the names. Without `withFingerprints` those are
// not even read. RESULT_ANSWER_TOO_LONG when the texts of the rows come to more than an answer may have.
int32_t GetPolicies(Connection& connection, const std::string& policyName, const std::vector<std::string>& bundleNames,
                    bool withFingerprints,
                    std::vector<VARN::AppSecurityPrivacy::SecurityPrivacyServer::GTokenResult>& rows);

}  // namespace SecurityPrivacyTools
