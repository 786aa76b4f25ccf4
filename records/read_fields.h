// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "varn/parcel.h"

// How records and lists are read that travel inside something else: a request, a reply or another record.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// Each fills a new record in place, in the order in which its Marshalling writes. False at the first field that cannot
// be read; throws std::bad_alloc when memory runs out. PermissionUsageRecord names its own as a friend.
class GTokenPolicy;
class GTokenResult;
bool ReadFields(Parcel& parcel, GTokenPolicy& policy);
bool ReadFields(Parcel& parcel, GTokenResult& row);

namespace Permission {
class AppPermissionGroupInfo;
bool ReadFields(Parcel& parcel, AppPermissionGroupInfo& info);
}  // namespace Permission

// How many elements so many bytes of a message can hold at most: a string takes a length and a terminator, and no
// record takes more than five times as much memory as its shortest form in a message.
template <class Element>
size_t MostElements(size_t bytes)
{
    static_assert(std::is_nothrow_move_constructible_v<Element>, "a growing list would copy its elements");
    return std::is_same_v<Element, std::string> ? bytes / (2 * sizeof(int32_t)) : 5 * bytes / sizeof(Element);
}

// Adds `announced` elements, none for a negative number, to `list`, a vector or a set, until `read` cannot fill one; in
// a vector it fills each where it stands. The number is only a claim, and a short message must not take much memory:
// room is made for no more elements than the rest of the message can hold.
template <class List, class Read>
bool ReadAnnounced(Parcel& parcel, int32_t announced, List& list, const Read& read)
{
    using Element = typename List::value_type;
    const auto claimed = static_cast<size_t>(std::max(announced, 0));
    list.reserve(list.size() + std::min(claimed, MostElements<Element>(parcel.GetReadableBytes())));
    for (int32_t index = 0; index < announced; ++index) {
        if constexpr (std::is_same_v<List, std::vector<Element>>) {
            if (!read(list.emplace_back())) {
                return false;
            }
        } else if (Element element; read(element)) {
            list.insert(std::move(element));
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
