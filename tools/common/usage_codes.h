// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace SecurityPrivacyTools {

// The numbers that usage records carry for operation mode, app state and screen state, and the words for them.
struct UsageCode {
    int32_t code;
    std::string_view name;
};

const std::vector<UsageCode>& OperationModes();  // allowed 0, denied 1
const std::vector<UsageCode>& AppStates();       // foreground 0, background 1
const std::vector<UsageCode>& ScreenStates();    // on 0, off 1, locked 2

constexpr int32_t MODE_DENIED = 1;
constexpr int32_t APP_IN_BACKGROUND = 1;

// The code of that name, or null.
const UsageCode* FindUsageCode(const std::vector<UsageCode>& codes, std::string_view name);

// The name of a code; its number when it has none.
std::string UsageCodeName(const std::vector<UsageCode>& codes, int32_t code);

// The names, for messages: "allowed, denied".
std::string UsageCodeNames(const std::vector<UsageCode>& codes);

}  // namespace SecurityPrivacyTools
