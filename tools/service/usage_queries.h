// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "security_privacy/permission_usage_record.h"
#include "security_privacy/permission_usage_record_query.h"
#include "service/database.h"

namespace SecurityPrivacyTools {

using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecord;
using VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record::PermissionUsageRecordQuery;

// What a query means to this service:
//
//   lists    Each list that is not empty restricts to its elements; all of them have to be met.
//   span     The events that begin in [begin, end), in milliseconds since the epoch; 0 leaves that side open. An event
//            counts where it begins, so adjoining spans count it once.
//   order    0 oldest first, 1 newest first, by the begin; equal ones by app, group and the other columns.
//   limit    The first so many records in that order; 0 means all.
//
// Whatever the limit, reading stops one record past what an answer may carry: the library then refuses the answer as
// too long.
//
// Both append to `records` and answer RESULT_OK, or RESULT_BAD_ORDER or RESULT_BAD_LIMIT with nothing appended. They
// throw DatabaseError. A summary of more than 65536 sums, whatever the limit, is RESULT_ANSWER_TOO_LONG.

// One record per app, operation group, mode, app state and screen state: the times added up (no further than an int32
// goes), from the first begin to the last end.
int32_t SummariseUsage(Connection& connection, const PermissionUsageRecordQuery& query,
                       std::vector<PermissionUsageRecord>& records);

// One record per event.
int32_t ListUsage(Connection& connection, const PermissionUsageRecordQuery& query,
                  std::vector<PermissionUsageRecord>& records);

}  // namespace SecurityPrivacyTools
