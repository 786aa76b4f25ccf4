// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace SecurityPrivacyTools {

// The result codes of this service. The library passes them through unread. They start where no status of the library
// (1, 4, 5, 401) and none of the platform (negative) can be, since the first, second, fourth and fifth request hand a
// code on as the status of the request. Never renumber: clients that are already running know them.
enum ResultCode : int32_t {
    RESULT_OK = 0,
    RESULT_UNKNOWN_USER = 1001,
    RESULT_UNKNOWN_APP = 1002,
    RESULT_UNKNOWN_PERMISSION_GROUP = 1003,
    RESULT_STATE_NOT_SHOWN = 1004,
    RESULT_STATE_DISABLED = 1005,
    RESULT_BAD_ORDER = 1006,
    RESULT_BAD_LIMIT = 1007,
    RESULT_BAD_NAME = 1008,
    RESULT_FINGERPRINT_MISMATCH = 1009,
    RESULT_UNKNOWN_BUNDLE = 1010,
    RESULT_NOT_SAVED = 1011,
    RESULT_TOO_LONG = 1012,
    RESULT_ANSWER_TOO_LONG = 1013,
    RESULT_NOT_READ = 1014,
};

struct ResultDescription {
    ResultCode code;
    const char* name;     // without the prefix: "STATE_DISABLED"
    const char* meaning;  // a sentence
};

inline constexpr ResultDescription RESULT_DESCRIPTIONS[] = {
    {RESULT_UNKNOWN_USER, "UNKNOWN_USER", "the device has no such user"},
    {RESULT_UNKNOWN_APP, "UNKNOWN_APP", "the app is not installed for this user or uid"},
    {RESULT_UNKNOWN_PERMISSION_GROUP, "UNKNOWN_PERMISSION_GROUP", "the device or the app has no such permission group"},
    {RESULT_STATE_NOT_SHOWN, "STATE_NOT_SHOWN", "the state is not among those shown for the group"},
    {RESULT_STATE_DISABLED, "STATE_DISABLED", "the state is shown but disabled"},
    {RESULT_BAD_ORDER, "BAD_ORDER", "the order is neither 0 (oldest first) nor 1 (newest first)"},
    {RESULT_BAD_LIMIT, "BAD_LIMIT", "the limit is negative"},
    {RESULT_BAD_NAME, "BAD_NAME", "a bundle name, fingerprint or policy name is empty or not printable ASCII"},
    {RESULT_FINGERPRINT_MISMATCH, "FINGERPRINT_MISMATCH",
     "a bundle is stored with another fingerprint; nothing was changed"},
    {RESULT_UNKNOWN_BUNDLE, "UNKNOWN_BUNDLE", "nothing is stored for one of the bundles; nothing was changed"},
    {RESULT_NOT_SAVED, "NOT_SAVED", "the database could not be written; nothing was changed"},
    {RESULT_TOO_LONG, "TOO_LONG", "a bundle name, fingerprint or policy name is too long to be stored"},
    {RESULT_ANSWER_TOO_LONG, "ANSWER_TOO_LONG", "the answer would be too long; ask for less at a time"},
    {RESULT_NOT_READ, "NOT_READ", "the database could not be read"},
};

// Null for 0, and for a number that is no result code.
inline const ResultDescription* DescribeResult(int32_t code)
{
    const auto isIt = [code](const ResultDescription& description) { return description.code == code; };
    const auto* found = std::find_if(std::begin(RESULT_DESCRIPTIONS), std::end(RESULT_DESCRIPTIONS), isIt);
    return found != std::end(RESULT_DESCRIPTIONS) ? found : nullptr;
}

}  // namespace SecurityPrivacyTools
