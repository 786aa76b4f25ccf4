// SPDX-License-Identifier: Apache-2.0
#include "common/result_codes.h"

namespace SecurityPrivacyTools {
namespace {

constexpr ResultDescription DESCRIPTIONS[] = {
    {RESULT_OK, "OK", "success"},
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

}  // namespace

const ResultDescription* DescribeResult(int32_t code)
{
    for (const ResultDescription& description : DESCRIPTIONS) {
        if (description.code == code) {
            return &description;
        }
    }
    return nullptr;
}

}  // namespace SecurityPrivacyTools
