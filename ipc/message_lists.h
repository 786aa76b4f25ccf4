// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "records/read_fields.h"
#include "security_privacy/gtoken_info.h"
#include "varn/message_parcel.h"

// How lists stand in requests and replies, for both sides of a call: the proxy and the stub. Private to ipc/.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// A list's size as a message states it.
template <class List>
int32_t SizeOf(const List& list, int32_t limit = std::numeric_limits<int32_t>::max())
{
    return std::min(static_cast<int32_t>(list.size()), limit);
}

// Writes the size of `list`, at most `limit`, and as many elements in the container's own order: strings, or records,
// each behind its presence word.
template <class List>
void WriteList(MessageParcel& parcel, const List& list, int32_t limit = std::numeric_limits<int32_t>::max())
{
    const int32_t size = SizeOf(list, limit);
    parcel.WriteInt32(size);
    std::for_each_n(list.begin(), size, [&](const typename List::value_type& element) {
        if constexpr (std::is_same_v<typename List::value_type, std::string>) {
            parcel.WriteString(element);
        } else {
            parcel.WriteParcelable(&element);
        }
    });
}

// Reads exactly `size` strings into a list or a set, none when it is negative. What the message does not hold reads as
// empty strings, so the caller must have checked `size` against its limit.
template <class Strings>
Strings ReadStrings(MessageParcel& parcel, int32_t size)
{
    Strings strings;
    ReadAnnounced(parcel, size, strings, [&](std::string& string) {
        parcel.ReadString(string);
        return true;
    });
    return strings;
}

// Appends to `records` those of the `announced` ones that are there: a record that is absent or cannot be read is left
// out, silently, and the next one is tried where reading stopped. Throws std::bad_alloc when memory runs out, with
// `records` as it was.
template <class Record>
void ReadRecords(MessageParcel& parcel, int32_t announced, std::vector<Record>& records)
{
    const size_t before = records.size();
    const size_t start = parcel.GetReadableBytes();
    try {
        for (int32_t index = 0; index < announced; ++index) {
            const size_t left = parcel.GetReadableBytes();
            // Not even a presence word is left, so every further record would be absent. Going on would change nothing
            // but the time: a count may be as large as 2147483647 and nothing may follow it.
            if (left < sizeof(int32_t)) {
                return;
            }
            if (parcel.ReadInt32() == 0) {
                continue;
            }
            if (records.size() == records.capacity()) {
                // How many are still to come is only a claim: the first get room for a few dozen, and what these took
                // on average says how many more the message can hold.
                const auto read = static_cast<size_t>(index);
                const size_t expected =
                    read == 0 ? 16384 / sizeof(Record) : std::max(left * read / (start - left) + 1, read / 4);
                const size_t most =
                    std::min({static_cast<size_t>(announced) - read, expected, MostElements<Record>(left)});
                const size_t room = std::max<size_t>(most, 1);
                // A list that a caller appends to again and again is not moved each time.
                records.reserve(std::max(records.size() + room, 2 * before));
            }
            if constexpr (std::is_same_v<Record, GTokenInfo>) {
                // Not in place: one with too many policies outlives the attempt to read it, see its Unmarshalling.
                const sptr<GTokenInfo> info(GTokenInfo::Unmarshalling(parcel));
                if (info != nullptr) {
                    records.push_back(std::move(*info));  // no other owner sees it, so it need not be copied
                }
            } else if (!ReadFields(parcel, records.emplace_back())) {
                records.pop_back();
            }
        }
    } catch (const std::bad_alloc&) {
        records.resize(before);
        throw;
    }
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
