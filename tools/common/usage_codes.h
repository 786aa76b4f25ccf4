// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace SecurityPrivacyTools {

// The words for the numbers that usage records carry: the place of a word in its list is the number.
using UsageCodes = std::vector<std::string_view>;

const UsageCodes& OperationModes();
const UsageCodes& AppStates();
const UsageCodes& ScreenStates();

constexpr int32_t MODE_DENIED = 1;
constexpr int32_t APP_IN_BACKGROUND = 1;

std::optional<int32_t> FindUsageCode(const UsageCodes& codes, std::string_view name);

// The name of a code; its number when it has none.
std::string UsageCodeName(const UsageCodes& codes, int32_t code);

// The names, for messages: "allowed, denied".
std::string UsageCodeNames(const UsageCodes& codes);

}  // namespace SecurityPrivacyTools
