// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "varn/parcel.h"

// Lists whose length a message announces. A count is only a claim, and a short message must not take much memory: room
// is made for no more elements than the rest of the message can hold. A negative count announces none.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util {

// How many elements so many bytes of a message can hold at most: no string or record takes more than five times as much
// memory as its shortest form in a message.
template <class Element>
size_t MostElements(size_t bytes)
{
    static_assert(std::is_nothrow_move_constructible_v<Element>, "a growing list would copy its elements");
    return 5 * bytes / sizeof(Element);
}

// Appends `announced` elements to `list`, each of which `read` fills where it stands, until one cannot be read.
template <class Element, class Read>
bool ReadAnnounced(Parcel& parcel, int32_t announced, std::vector<Element>& list, const Read& read)
{
    const auto claimed = static_cast<size_t>(std::max(announced, 0));
    list.reserve(list.size() + std::min(claimed, MostElements<Element>(parcel.GetReadableBytes())));
    for (int32_t index = 0; index < announced; ++index) {
        if (!read(list.emplace_back())) {
            return false;
        }
    }
    return true;
}

// The same for a set of texts, each of which takes a length and a terminator at least; equal texts become one.
template <class Read>
bool ReadAnnounced(Parcel& parcel, int32_t announced, std::unordered_set<std::string>& set, const Read& read)
{
    const auto claimed = static_cast<size_t>(std::max(announced, 0));
    set.reserve(std::min(claimed, parcel.GetReadableBytes() / (2 * sizeof(int32_t))));
    for (int32_t index = 0; index < announced; ++index) {
        std::string text;
        if (!read(text)) {
            return false;
        }
        set.insert(std::move(text));
    }
    return true;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util
