// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace SecurityPrivacyTools {

// A decimal number with nothing around it, where it fits; null for any other text.
template <class T>
std::optional<T> ParseWhole(std::string_view text)
{
    T number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional<T>(number) : std::nullopt;
}

}  // namespace SecurityPrivacyTools
