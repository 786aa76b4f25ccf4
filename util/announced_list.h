// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

// Room for the elements that a message announces. A count is only a claim, and a short message must not take much
// memory: room is made for no more elements than the rest of the message can hold.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util {

// How many elements so many bytes of a message can hold at most: no string or record takes more than five times as much
// memory as its shortest form in a message.
template <class Element>
size_t MostElements(size_t bytes)
{
    static_assert(std::is_nothrow_move_constructible_v<Element>, "a growing list would copy its elements");
    return 5 * bytes / sizeof(Element);
}

// Makes room in `list` for `announced` more elements, none when that is negative. What is not expected this way costs
// a growth of the list, nothing else.
template <class Element>
void ReserveAnnounced(std::vector<Element>& list, int32_t announced, size_t readableBytes)
{
    const auto claimed = static_cast<size_t>(std::max(announced, 0));
    list.reserve(list.size() + std::min(claimed, MostElements<Element>(readableBytes)));
}

// The same for a set of texts, each of which takes a length and a terminator at least.
inline void ReserveAnnounced(std::unordered_set<std::string>& set, int32_t announced, size_t readableBytes)
{
    set.reserve(std::min(static_cast<size_t>(std::max(announced, 0)), readableBytes / (2 * sizeof(int32_t))));
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util
