// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

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

// Null for a number that is no result code.
const ResultDescription* DescribeResult(int32_t code);

}  // namespace SecurityPrivacyTools
