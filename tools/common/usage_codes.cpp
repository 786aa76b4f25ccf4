// SPDX-License-Identifier: Apache-2.0
#include "common/usage_codes.h"

namespace SecurityPrivacyTools {

const std::vector<UsageCode>& OperationModes()
{
    static const std::vector<UsageCode> modes{{0, "allowed"}, {MODE_DENIED, "denied"}};
    return modes;
}

const std::vector<UsageCode>& AppStates()
{
    static const std::vector<UsageCode> states{{0, "foreground"}, {APP_IN_BACKGROUND, "background"}};
    return states;
}

const std::vector<UsageCode>& ScreenStates()
{
    static const std::vector<UsageCode> states{{0, "on"}, {1, "off"}, {2, "locked"}};
    return states;
}

const UsageCode* FindUsageCode(const std::vector<UsageCode>& codes, std::string_view name)
{
    for (const UsageCode& code : codes) {
        if (code.name == name) {
            return &code;
        }
    }
    return nullptr;
}

std::string UsageCodeName(const std::vector<UsageCode>& codes, int32_t code)
{
    for (const UsageCode& candidate : codes) {
        if (candidate.code == code) {
            return std::string(candidate.name);
        }
    }
    return std::to_string(code);
}

std::string UsageCodeNames(const std::vector<UsageCode>& codes)
{
    std::string names;
    for (const UsageCode& code : codes) {
        names += (names.empty() ? "" : ", ") + std::string(code.name);
    }
    return names;
}

}  // namespace SecurityPrivacyTools
