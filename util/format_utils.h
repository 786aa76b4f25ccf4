// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <type_traits>
#include <vector>

// How values look in log lines and in the records' ToString(). For people, not for programs: nothing is escaped.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::FormatUtils {

// A text in single quotes ('camera'), a number in decimal, a bool as true or false, a record as its own text.
template <class Value>
std::string Text(const Value& value)
{
    if constexpr (std::is_same_v<Value, std::string>) {
        return "'" + value + "'";
    } else if constexpr (std::is_same_v<Value, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_integral_v<Value>) {
        return std::to_string(value);
    } else {
        return value.ToString();
    }
}

// A vector as a list, [1, -2, 3], a set in braces, {'a', 'b'}, both in the container's own order.
template <class Container>
std::string ToString(const Container& container)
{
    constexpr bool IS_LIST = std::is_same_v<Container, std::vector<typename Container::value_type>>;
    std::string text(1, IS_LIST ? '[' : '{');
    for (const auto& element : container) {
        text += text.size() == 1 ? "" : ", ";
        text += Text(element);
    }
    return text += IS_LIST ? ']' : '}';
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::FormatUtils
