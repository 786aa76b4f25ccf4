// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace SecurityPrivacyTools {

// A result code of this service. The library passes them through unread. They start where no status of the library
// (1, 4, 5, 401) and none of the platform (negative) can be, since the first, second, fourth and fifth request hand a
// code on as the status of the request. Never renumber: clients that are already running know them.
struct ResultCode {
    int32_t number;
    const char* name;     // without the prefix: "STATE_DISABLED"
    const char* meaning;  // a sentence

    constexpr operator int32_t() const { return number; }
};

constexpr int32_t RESULT_OK = 0;
constexpr ResultCode RESULT_UNKNOWN_USER{1001, "UNKNOWN_USER", "the device has no such user"};
constexpr ResultCode RESULT_UNKNOWN_APP{1002, "UNKNOWN_APP", "the app is not installed for this user or uid"};
constexpr ResultCode RESULT_UNKNOWN_PERMISSION_GROUP{1003, "UNKNOWN_PERMISSION_GROUP",
                                                     "the device or the app has no such permission group"};
constexpr ResultCode RESULT_STATE_NOT_SHOWN{1004, "STATE_NOT_SHOWN",
                                            "the state is not among those shown for the group"};
constexpr ResultCode RESULT_STATE_DISABLED{1005, "STATE_DISABLED", "the state is shown but disabled"};
constexpr ResultCode RESULT_BAD_ORDER{1006, "BAD_ORDER", "the order is neither 0 (oldest first) nor 1 (newest first)"};
constexpr ResultCode RESULT_BAD_LIMIT{1007, "BAD_LIMIT", "the limit is negative"};
constexpr ResultCode RESULT_BAD_NAME{1008, "BAD_NAME",
                                     "a bundle name, fingerprint or policy name is empty or not printable ASCII"};
constexpr ResultCode RESULT_FINGERPRINT_MISMATCH{1009, "FINGERPRINT_MISMATCH",
                                                 "a bundle is stored with another fingerprint; nothing was changed"};
constexpr ResultCode RESULT_UNKNOWN_BUNDLE{1010, "UNKNOWN_BUNDLE",
                                           "nothing is stored for one of the bundles; nothing was changed"};
constexpr ResultCode RESULT_NOT_SAVED{1011, "NOT_SAVED", "the database could not be written; nothing was changed"};
constexpr ResultCode RESULT_TOO_LONG{1012, "TOO_LONG",
                                     "a bundle name, fingerprint or policy name is too long to be stored"};
constexpr ResultCode RESULT_ANSWER_TOO_LONG{1013, "ANSWER_TOO_LONG",
                                            "the answer would be too long; ask for less at a time"};
constexpr ResultCode RESULT_NOT_READ{1014, "NOT_READ", "the database could not be read"};

constexpr ResultCode RESULT_CODES[] = {RESULT_UNKNOWN_USER,    RESULT_UNKNOWN_APP,    RESULT_UNKNOWN_PERMISSION_GROUP,
                                       RESULT_STATE_NOT_SHOWN, RESULT_STATE_DISABLED, RESULT_BAD_ORDER,
                                       RESULT_BAD_LIMIT,       RESULT_BAD_NAME,       RESULT_FINGERPRINT_MISMATCH,
                                       RESULT_UNKNOWN_BUNDLE,  RESULT_NOT_SAVED,      RESULT_TOO_LONG,
                                       RESULT_ANSWER_TOO_LONG, RESULT_NOT_READ};

}  // namespace SecurityPrivacyTools
