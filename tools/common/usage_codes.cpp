// SPDX-License-Identifier: Apache-2.0
#include "common/usage_codes.h"

#include <algorithm>

namespace SecurityPrivacyTools {

const UsageCodes& OperationModes()
{
    static const UsageCodes modes{"allowed", "denied"};
    return modes;
}

const UsageCodes& AppStates()
{
    static const UsageCodes states{"foreground", "background"};
    return states;
}

const UsageCodes& ScreenStates()
{
    static const UsageCodes states{"on", "off", "locked"};
    return states;
}

std::optional<int32_t> FindUsageCode(const UsageCodes& codes, std::string_view name)
{
    const auto found = std::find(codes.begin(), codes.end(), name);
    return found != codes.end() ? std::optional(static_cast<int32_t>(found - codes.begin())) : std::nullopt;
}

std::string UsageCodeName(const UsageCodes& codes, int32_t code)
{
    const bool isKnown = code >= 0 && static_cast<size_t>(code) < codes.size();
    return isKnown ? std::string(codes[static_cast<size_t>(code)]) : std::to_string(code);
}

std::string UsageCodeNames(const UsageCodes& codes)
{
    std::string names;
    for (const std::string_view name : codes) {
        names.append(names.empty() ? "" : ", ").append(name);
    }
    return names;
}

}  // namespace SecurityPrivacyTools
