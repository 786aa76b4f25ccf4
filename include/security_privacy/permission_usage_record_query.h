// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "security_privacy/export.h"
#include "varn/parcel.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record {

// Which usage records a client asks for: six filter lists, a time span, a limit and an order. A plain value. The
// library carries it and bounds its lists, and logs nothing; what the filters mean is the service's business.
class SECURITY_PRIVACY_API PermissionUsageRecordQuery : public Parcelable {
public:
    // The fields, in the order in which they travel; empty and 0 in a new query.
    const std::vector<std::string>& GetBundleNames() const { return bundleNames_; }
    const std::vector<int>& GetUserIds() const { return userIds_; }
    const std::vector<std::string>& GetOperationGroups() const { return operationGroups_; }
    const std::vector<int>& GetOperationModes() const { return operationModes_; }
    const std::vector<int>& GetAppStates() const { return appStates_; }
    const std::vector<int>& GetScreenStates() const { return screenStates_; }
    int64_t GetBeginTimestamp() const { return beginTimestamp_; }
    int64_t GetEndTimestamp() const { return endTimestamp_; }
    int32_t GetLimit() const { return limit_; }
    int32_t GetOrder() const { return order_; }

    // A list replaces the one before. Its length is not tested here: a query with more than 99 elements in a list fails
    // when it is marshalled.
    void SetBundleNames(const std::vector<std::string>& bundleNames) { bundleNames_ = bundleNames; }
    void SetUserIds(const std::vector<int>& userIds) { userIds_ = userIds; }
    void SetOperationGroups(const std::vector<std::string>& operationGroups) { operationGroups_ = operationGroups; }
    void SetOperationModes(const std::vector<int>& operationModes) { operationModes_ = operationModes; }
    void SetAppStates(const std::vector<int>& appStates) { appStates_ = appStates; }
    void SetScreenStates(const std::vector<int>& screenStates) { screenStates_ = screenStates; }
    void SetBeginTimestamp(int64_t beginTimestamp) { beginTimestamp_ = beginTimestamp; }
    void SetEndTimestamp(int64_t endTimestamp) { endTimestamp_ = endTimestamp; }
    void SetLimit(int32_t limit) { limit_ = limit; }
    void SetOrder(int32_t order) { order_ = order; }

    // Writes all fields. False at the first write that fails and at the first list of more than 99 elements, whose
    // count is then in the parcel already; the parcel is to be dropped.
    bool Marshalling(Parcel& parcel) const override;

    // Reads a new query for the caller to own; null when the parcel does not hold a whole one, announces more than
    // 99 elements in a list, or memory runs out. A negative count reads as an empty list.
    static PermissionUsageRecordQuery* Unmarshalling(Parcel& parcel);

    // Fills `query` from the parcel: elements are appended to its lists, numbers replaced. Takes `query` over: returns
    // it on success, and on failure deletes it and returns null, so that the caller must not touch it again. A null
    // query is a failure like any other.
    static PermissionUsageRecordQuery* UnmarshallingInner(Parcel& parcel, PermissionUsageRecordQuery* query);

    // All fields on one line, for logs.
    std::string ToString() const;

private:
    std::vector<std::string> bundleNames_;
    std::vector<int> userIds_;
    std::vector<std::string> operationGroups_;
    std::vector<int> operationModes_;
    std::vector<int> appStates_;
    std::vector<int> screenStates_;
    int64_t beginTimestamp_ = 0;
    int64_t endTimestamp_ = 0;
    int32_t limit_ = 0;
    int32_t order_ = 0;
};

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Record
