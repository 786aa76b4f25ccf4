// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <new>

#include "util/format_utils.h"
#include "util/log_line.h"
#include "varn/parcel.h"

// The steps by which a record that logs its fields is written to and read from `parcel`. Each moves one value and logs
// that it did; it is an expression, true on success and false, without a line, on failure, so that a record reads as
// its field list:
//
//   bool GTokenPolicy::Marshalling(Parcel& parcel) const
//   {
//       bool isWritten = WRITE(String, policyName);
//       return isWritten && WRITE(Int64, policyValue);
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

#define FIELD_LOG(function, ...) LogField([&] { LOG_DEBUG_AS(function, __VA_ARGS__); })

// A new record that is filled as `FillRecord` does; an error line names its class when memory runs out.
#define MAKE_RECORD(Record, ...)                         \
    FillRecord(new (std::nothrow) Record(), __VA_ARGS__, \
               [] { LOG_ERROR_AS("Unmarshalling", "new " #Record " failed."); })

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

template <class Log>
bool LogField(const Log& log)
{
    try {
        log();
    } catch (const std::bad_alloc&) {
        // The line is lost, the field is not.
    }
    return true;
}

// Takes `unfilled` over and returns it when `read`, which is handed its owner, has filled it; null when it returns
// false. When memory has run out, for the record or for its fields, null as well, after `logFailure`.
template <class Record, class Read, class LogFailure>
Record* FillRecord(Record* unfilled, const Read& read, const LogFailure& logFailure)
{
    std::unique_ptr<Record> record(unfilled);
    try {
        if (record != nullptr) {
            return read(record) ? record.release() : nullptr;
        }
    } catch (const std::bad_alloc&) {
        record.reset();  // the line needs memory too
    }
    logFailure();
    return nullptr;
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
