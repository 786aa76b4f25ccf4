// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace SecurityPrivacyTools {

// The words for the numbers that usage records carry: the place of a word in its list is the number.
using UsageCodes = std::initializer_list<const char*>;

inline constexpr UsageCodes OPERATION_MODES{"allowed", "denied"};
inline constexpr UsageCodes APP_STATES{"foreground", "background"};
inline constexpr UsageCodes SCREEN_STATES{"on", "off", "locked"};

constexpr int32_t MODE_DENIED = 1;
constexpr int32_t APP_IN_BACKGROUND = 1;

inline std::optional<int32_t> FindUsageCode(const UsageCodes& codes, std::string_view name)
{
    const auto found = std::find(codes.begin(), codes.end(), name);
    return found != codes.end() ? std::optional(static_cast<int32_t>(found - codes.begin())) : std::nullopt;
}

// The name of a code; its number when it has none.
inline std::string UsageCodeName(const UsageCodes& codes, int32_t code)
{
    const bool isKnown = code >= 0 && static_cast<size_t>(code) < codes.size();
    return isKnown ? codes.begin()[code] : std::to_string(code);
}

// The names, for messages: "allowed, denied".
inline std::string UsageCodeNames(const UsageCodes& codes)
{
    std::string names;
    for (const char* name : codes) {
        names.append(names.empty() ? "" : ", ").append(name);
    }
    return names;
}

}  // namespace SecurityPrivacyTools
