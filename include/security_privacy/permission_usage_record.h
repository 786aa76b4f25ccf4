// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "security_privacy/export.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

// How one app used one operation group during one period: what a service answers to the summary and timeline requests.
// A plain value. The codes for mode and states and the unit of the timestamps are the service's; nothing is checked
// or logged here.
class SECURITY_PRIVACY_API PermissionUsageRecord : public Parcelable {
public:
    // The fields; empty and 0 in a new record, unless something else stands there.
    const std::string& GetBundleName() const { return bundleName_; }
    // -1 until it is set.
    int32_t GetUid() const { return uid_; }
    const std::string& GetOperationGroup() const { return operationGroup_; }
    // How many uses the record counts.
    int32_t GetTimes() const { return times_; }
    int32_t GetOperationMode() const { return operationMode_; }
    int32_t GetAppState() const { return appState_; }
    int32_t GetScreenState() const { return screenState_; }
    int64_t GetBeginTimestamp() const { return beginTimestamp_; }
    int64_t GetEndTimestamp() const { return endTimestamp_; }

    // Each takes whatever it is given.
    void SetBundleName(const std::string& bundleName) { bundleName_ = bundleName; }
    void SetUid(int32_t uid) { uid_ = uid; }
    void SetOperationGroup(const std::string& operationGroup) { operationGroup_ = operationGroup; }
    void SetTimes(int32_t times) { times_ = times; }
    void SetOperationMode(int32_t operationMode) { operationMode_ = operationMode; }
    void SetAppState(int32_t appState) { appState_ = appState; }
    void SetScreenState(int32_t screenState) { screenState_ = screenState; }
    void SetBeginTimestamp(int64_t beginTimestamp) { beginTimestamp_ = beginTimestamp; }
    void SetEndTimestamp(int64_t endTimestamp) { endTimestamp_ = endTimestamp; }

    // Writes all fields. False at the first write that fails; the parcel is then to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new record for the caller to own; null when the parcel does not hold a whole one or memory runs out.
    static PermissionUsageRecord* Unmarshalling(Parcel& parcel);

    // All fields on one line, for logs.
    std::string ToString() const;

private:
    friend bool ReadFields(Parcel& parcel, PermissionUsageRecord& record);  // the library's own

    std::string bundleName_;
    int32_t uid_ = -1;
    std::string operationGroup_;
    int32_t times_ = 0;
    int32_t operationMode_ = 0;
    int32_t appState_ = 0;
    int32_t screenState_ = 0;
    int64_t beginTimestamp_ = 0;
    int64_t endTimestamp_ = 0;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record
