// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/app_permission_group_info.h"

#include <algorithm>
#include <iterator>

#include "records/field_io.h"
#include "records/read_fields.h"
#include "security_privacy/contract.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission {

using Util::FormatUtils::Text;

const auto LOG_TAG = Util::KelLog::Tag::Create("permission");

bool AppPermissionGroupInfo::Marshalling(Parcel& parcel) const
{
    // What is beyond the limit is left out without a word: a reader would refuse the whole record.
    const int32_t shownStatesSize = std::min(static_cast<int32_t>(shownStates.size()), MAX_STATES_SIZE);
    const int32_t disabledStatesSize = std::min(static_cast<int32_t>(disabledStates.size()), MAX_STATES_SIZE);
    const auto writeShownState = [&](const std::string& shownState) { return WRITE(String, shownState); };
    const auto writeDisabledState = [&](const std::string& disabledState) { return WRITE(String, disabledState); };
    bool isWritten = WRITE(String, bundleName);
    isWritten = isWritten && WRITE(Int32, uid);
    isWritten = isWritten && WRITE(String, permissionGroup);
    isWritten = isWritten && WRITE(String, checkedState);
    isWritten = isWritten && WRITE(Int32, shownStatesSize);
    isWritten =
        isWritten && std::all_of(shownStates.begin(), std::next(shownStates.begin(), shownStatesSize), writeShownState);
    isWritten = isWritten && WRITE(Int32, disabledStatesSize);
    isWritten = isWritten && std::all_of(disabledStates.begin(), std::next(disabledStates.begin(), disabledStatesSize),
                                         writeDisabledState);
    isWritten = isWritten && WRITE(String, disabledReason);
    return isWritten && WRITE(Int64, flags);
}

bool ReadFields(Parcel& parcel, AppPermissionGroupInfo& info)
{
    int32_t shownStatesSizeRead = 0;
    int32_t disabledStatesSizeRead = 0;
    const auto readShownState = [&](std::string& shownState) { return READ_ELEMENT(String, shownState); };
    const auto readDisabledState = [&](std::string& disabledState) { return READ_ELEMENT(String, disabledState); };

    bool isRead = READ(String, &info, bundleName);
    isRead = isRead && READ(Int32, &info, uid);
    isRead = isRead && READ(String, &info, permissionGroup);
    isRead = isRead && READ(String, &info, checkedState);
    isRead = isRead && READ_LOCAL(Int32, shownStatesSizeRead);
    isRead = isRead && CHECK_AT_MOST(shownStatesSizeRead, MAX_STATES_SIZE);
    isRead = isRead && ReadAnnounced(parcel, shownStatesSizeRead, info.shownStates, readShownState);
    isRead = isRead && READ_LOCAL(Int32, disabledStatesSizeRead);
    isRead = isRead && CHECK_AT_MOST(disabledStatesSizeRead, MAX_STATES_SIZE);
    isRead = isRead && ReadAnnounced(parcel, disabledStatesSizeRead, info.disabledStates, readDisabledState);
    isRead = isRead && READ(String, &info, disabledReason);
    return isRead && READ(Int64, &info, flags);
}

AppPermissionGroupInfo* AppPermissionGroupInfo::Unmarshalling(Parcel& parcel)
{
    return MAKE_RECORD(AppPermissionGroupInfo, [&](const auto& info) { return ReadFields(parcel, *info); });
}

std::string AppPermissionGroupInfo::ToString() const
{
    return "AppPermissionGroupInfo{bundleName=" + Text(bundleName) + ", uid=" + Text(uid) +
           ", permissionGroup=" + Text(permissionGroup) + ", checkedState=" + Text(checkedState) +
           ", shownStates=" + Util::FormatUtils::ToString(shownStates) +
           ", disabledStates=" + Util::FormatUtils::ToString(disabledStates) +
           ", disabledReason=" + Text(disabledReason) + ", flags=" + Text(flags) + "}";
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission
