// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util {

// Makes room in `list` for the elements that a message announces (none when the count is negative), but never for more
// than about four times the `readableBytes` that are left of it: a count is only a claim, and a short message must not
// take much memory. Elements that are not expected this way cost a growth of the list, nothing else.
template <class Element>
void ReserveAnnounced(std::vector<Element>& list, int32_t announced, size_t readableBytes)
{
    static_assert(std::is_nothrow_move_constructible_v<Element>, "a growing list would copy its elements");
    // No string or record takes more than about four times as much memory as its shortest form in a message.
    const size_t possible = readableBytes / std::max<size_t>(sizeof(Element) / 4, 1);
    const size_t needed = list.size() + std::min(static_cast<size_t>(std::max(announced, 0)), possible);
    if (needed > list.capacity()) {
        // At least twice as much, so that a list that is appended to again and again is not moved each time.
        list.reserve(std::max(needed, 2 * list.capacity()));
    }
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util
