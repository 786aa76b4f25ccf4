// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "security_privacy/contract.h"
#include "util/announced_list.h"
#include "util/format_utils.h"
#include "util/log_line.h"
#include "varn/parcel.h"

// The steps by which a record that logs its fields is written to and read from `parcel`. Each moves one value and logs
// that it did; it is an expression, true on success and false, without a line, on failure, so that a record reads as
// its field list:
//
//   bool GTokenPolicy::Marshalling(Parcel& parcel) const
//   {
//       return IfMemoryLasts([&] {
//           bool isWritten = WRITE(String, policyName);
//           return isWritten && WRITE(Int64, policyValue);
//       });
//   }
//
// The lines bear the names Marshalling and Unmarshalling wherever the step stands, also inside a helper or a lambda.
//
//   step                                     what it logs for the value 'camera', 3 or 50
//   WRITE(String, policyName)                WriteString policyName='camera' succeed.
//   WRITE_MASKED(String, fingerprint)        WriteString fingerprint succeed.
//   READ(String, policy, policyName)         ReadString to policyName='camera' succeed.
//   READ_MASKED(String, row, fingerprint)    ReadString to fingerprint succeed.
//   READ_LOCAL(Int32, policiesSize)          ReadInt32 to policiesSize=3 succeed.
//   READ_ELEMENT(String, shownState)         ReadString shownState='camera' succeed.
//   CHECK_AT_MOST(shownStatesSizeRead, 50)   shownStatesSizeRead check succeed.
//
// READ and READ_MASKED fill a field of the record that a pointer names, here policy->policyName. The others take the
// plain name of a field or a local, which is also what they log. The masked steps are for what must never reach a log.
#define WRITE(Type, name)        \
    (parcel.Write##Type(name) && \
     FIELD_LOG("Marshalling", "Write" #Type " " #name "=%s succeed.", Util::FormatUtils::Text(name).c_str()))
#define WRITE_MASKED(Type, name) \
    (parcel.Write##Type(name) && FIELD_LOG("Marshalling", "Write" #Type " " #name " succeed."))

#define READ(Type, record, name) READ_STEP(Type, (record)->name, " to " #name)
#define READ_LOCAL(Type, name) READ_STEP(Type, name, " to " #name)
#define READ_ELEMENT(Type, name) READ_STEP(Type, name, " " #name)
#define READ_STEP(Type, value, text) \
    (parcel.Read##Type(value) &&     \
     FIELD_LOG("Unmarshalling", "Read" #Type text "=%s succeed.", Util::FormatUtils::Text(value).c_str()))
#define READ_MASKED(Type, record, name) \
    (parcel.Read##Type((record)->name) && FIELD_LOG("Unmarshalling", "Read" #Type " to " #name " succeed."))
#define CHECK_AT_MOST(name, limit) ((name) <= (limit) && FIELD_LOG("Unmarshalling", #name " check succeed."))

#define FIELD_LOG(function, ...) (LOG_DEBUG_AS(function, __VA_ARGS__), true)

// What `MakeRecord` makes, for a record that logs: an error line names its class when memory runs out.
#define MAKE_RECORD(Record, ...) \
    MakeRecord<Record>(__VA_ARGS__, [] { LOG_ERROR_AS("Unmarshalling", "new " #Record " failed."); })

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// What `step` returns; false when memory runs out, which may happen in any line that is logged.
template <class Step>
bool IfMemoryLasts(const Step& step)
{
    try {
        return step();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// A new record that `read`, which is handed its owner, has filled; null when it returns false. When memory runs out,
// null as well, after `logFailure`.
template <class Record, class Read, class LogFailure>
Record* MakeRecord(const Read& read, const LogFailure& logFailure)
{
    try {
        std::unique_ptr<Record> record(new (std::nothrow) Record());
        if (record != nullptr) {
            return read(record) ? record.release() : nullptr;
        }
    } catch (const std::bad_alloc&) {
        // A record without memory for its fields is as good as none.
    }
    logFailure();
    return nullptr;
}

// The fields of the usage records, which log nothing: MoveAll moves them in the order of its arguments, until one
// cannot be moved. A list is its size, which tells the reader of a refused one to refuse it as well, and its elements.
struct Writer {
    Parcel& parcel;

    bool operator()(const std::string& text) const { return parcel.WriteString(text); }
    bool operator()(int32_t number) const { return parcel.WriteInt32(number); }
    bool operator()(int64_t number) const { return parcel.WriteInt64(number); }
    template <class Element>
    bool operator()(const std::vector<Element>& list) const
    {
        const auto size = static_cast<int32_t>(list.size());
        return (*this)(size) && size <= MAX_QUERY_LIST_SIZE && std::all_of(list.begin(), list.end(), *this);
    }
};

struct Reader {
    Parcel& parcel;

    bool operator()(std::string& text) const { return parcel.ReadString(text); }
    bool operator()(int32_t& number) const { return parcel.ReadInt32(number); }
    bool operator()(int64_t& number) const { return parcel.ReadInt64(number); }
    template <class Element>
    bool operator()(std::vector<Element>& list) const
    {
        int32_t size = 0;
        return (*this)(size) && size <= MAX_QUERY_LIST_SIZE && Util::ReadAnnounced(parcel, size, list, *this);
    }
};

template <class Mover, class... Fields>
bool MoveAll(const Mover& move, Fields&... fields)
{
    return (move(fields) && ...);
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
