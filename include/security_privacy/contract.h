// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

// The numbers that clients, services and monitors agree on: how a client finds the service, how long a call waits, how
// long a list may be, and what a status says. Each stands here once.
//
// Never change a value: clients and services are updated at different times, and each relies on what the other knows.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// The number under which a service is registered and a client looks for it.
inline constexpr int32_t SECURITY_PRIVACY_SA_ID = 65993;

// How long a client looks for the service, which may be starting only now.
inline constexpr int32_t SA_LOAD_TIMEOUT = 4;  // seconds

// How long a call may then take: sending the request, the service's work, and receiving the reply. It does not bound a
// service in the client's own process, whose operations run on the caller's thread.
inline constexpr int32_t WAIT_TIME = 8;  // seconds

// How many elements a list may have. Each stops a broken or hostile peer that would otherwise make the other side read
// and keep elements without end; the sides differ in what they do past a limit, see SecurityPrivacyServiceIntf and the
// records.
inline constexpr int32_t MAX_INTERESTED_PERMISSION_GROUPS_SIZE = 50;  // a by-app request's permission groups
inline constexpr int32_t MAX_INTERESTED_BUNDLE_NAMES_SIZE = 10000;    // a by-permission request's bundle names
inline constexpr int32_t MAX_APP_PERMISSION_GROUP_INFO_SIZE = 10000;  // what either of them answers
inline constexpr int32_t MAX_USAGE_RECORD_SIZE = 10000;               // what a summary or a timeline answers
inline constexpr int32_t MAX_GTOKEN_REQUEST_SIZE = 10000;  // an add's, get's or remove's bundles; a get's rows: none
inline constexpr int32_t MAX_STATES_SIZE = 50;             // an AppPermissionGroupInfo's shown states, disabled states
inline constexpr int32_t MAX_QUERY_LIST_SIZE = 99;         // each list of a PermissionUsageRecordQuery
inline constexpr int32_t MAX_POLICIES_SIZE = 10000;        // a GTokenInfo's policies
inline constexpr int32_t MAX_RESULTS_SIZE = 10000;         // a GTokenResultWithRet's rows, where it travels as a record

// Results, as a caller gets them; every other one is the service's own.
inline constexpr int32_t RESULT_OK = 0;
inline constexpr int32_t RESULT_TRANSPORT_FAILED = -1;  // not sent, refused, malformed, or the service went away

// Statuses of a request, as a service hands them to its platform: the stub's own. A caller sees each as -1.
inline constexpr int32_t STATUS_REFUSED = 1;       // another interface's token, or the access check said no
inline constexpr int32_t STATUS_UNKNOWN_CODE = 4;  // nothing handles the request code
inline constexpr int32_t STATUS_MALFORMED = 5;     // an unreadable request (groups, usage), or too long a timeline

// A result where a usage query cannot be written, a status where a GToken request cannot be read.
inline constexpr int32_t INVALID_ARGUMENTS = 401;

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
