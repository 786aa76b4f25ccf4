// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "util/announced_list.h"
#include "varn/message_parcel.h"

// How lists stand in requests and replies, for both sides of a call: the proxy and the stub. Private to ipc/.
namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// A list's size as a message states it.
template <class List>
int32_t SizeOf(const List& list, int32_t limit = std::numeric_limits<int32_t>::max())
{
    return std::min(static_cast<int32_t>(list.size()), limit);
}

// Writes the size of `strings`, at most `limit`, and as many of them in the container's own order.
template <class Strings>
void WriteStrings(MessageParcel& parcel, const Strings& strings, int32_t limit = std::numeric_limits<int32_t>::max())
{
    const int32_t size = SizeOf(strings, limit);
    parcel.WriteInt32(size);
    auto string = strings.begin();
    for (int32_t index = 0; index < size; ++index, ++string) {
        parcel.WriteString(*string);
    }
}

// Reads exactly `size` strings, none when it is negative. What the message does not hold reads as empty strings, so the
// caller must have checked `size` against its limit.
inline std::vector<std::string> ReadStrings(MessageParcel& parcel, int32_t size)
{
    std::vector<std::string> strings(static_cast<size_t>(std::max(size, 0)));
    for (std::string& string : strings) {
        parcel.ReadString(string);
    }
    return strings;
}

// The same into a set: equal strings become one.
inline std::unordered_set<std::string> ReadStringSet(MessageParcel& parcel, int32_t size)
{
    std::unordered_set<std::string> strings;
    // No more room than the message can fill: each string takes a word at least.
    strings.reserve(std::min(static_cast<size_t>(std::max(size, 0)), parcel.GetReadableBytes() / sizeof(int32_t)));
    for (int32_t index = 0; index < size; ++index) {
        strings.insert(parcel.ReadString());
    }
    return strings;
}

// Writes the size of `records`, at most `limit`, and as many of them, each behind its presence word.
template <class Record>
void WriteRecords(MessageParcel& parcel, const std::vector<Record>& records,
                  int32_t limit = std::numeric_limits<int32_t>::max())
{
    const int32_t size = SizeOf(records, limit);
    parcel.WriteInt32(size);
    for (int32_t index = 0; index < size; ++index) {
        parcel.WriteParcelable(&records[static_cast<size_t>(index)]);
    }
}

// Appends to `records` those of the `announced` ones that are there: a record that is absent or cannot be read is left
// out, silently, and the next one is tried where reading stopped.
template <class Record>
void ReadRecords(MessageParcel& parcel, int32_t announced, std::vector<Record>& records)
{
    Util::ReserveAnnounced(records, announced, parcel.GetReadableBytes());
    for (int32_t index = 0; index < announced; ++index) {
        // Not even a presence word is left, so every further record would be absent. Going on would change nothing but
        // the time: a count may be as large as 2147483647 and nothing may follow it.
        if (parcel.GetReadableBytes() < sizeof(int32_t)) {
            return;
        }
        const sptr<Record> record = parcel.ReadParcelable<Record>();
        if (record != nullptr) {
            records.push_back(std::move(*record));  // nobody else sees it, so it need not be copied
        }
    }
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
