// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

// How values look in log lines and in the records' ToString(). For people, not for programs: nothing is escaped.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::FormatUtils {

// A text in single quotes: 'camera'.
inline std::string Text(const std::string& value)
{
    std::string text;
    text.reserve(value.size() + 2);
    return text.append(1, '\'').append(value).append(1, '\'');
}

// A number in decimal, a bool as true or false.
template <class Value, std::enable_if_t<std::is_integral_v<Value>, bool> = true>
std::string Text(Value value)
{
    if constexpr (std::is_same_v<Value, bool>) {
        return value ? "true" : "false";
    } else {
        return std::to_string(value);
    }
}

// A record as its own text.
template <class Record>
auto Text(const Record& record) -> decltype(record.ToString())
{
    return record.ToString();
}

// The elements in the container's own order, with a comma and a blank between them.
template <class Container>
std::string Join(char open, const Container& container, char close)
{
    std::string text(1, open);
    const char* separator = "";
    for (const auto& element : container) {
        text += separator;
        text += Text(element);
        separator = ", ";
    }
    return text += close;
}

// A vector as a list, [1, -2, 3], a set in braces, {'a', 'b'}.
template <class Element>
std::string ToString(const std::vector<Element>& list)
{
    return Join('[', list, ']');
}
template <class Element>
std::string ToString(const std::unordered_set<Element>& set)
{
    return Join('{', set, '}');
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::FormatUtils
