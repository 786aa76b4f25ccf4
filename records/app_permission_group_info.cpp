// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/app_permission_group_info.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "records/field_io.h"
#include "security_privacy/contract.h"
#include "util/announced_list.h"
#include "util/format_utils.h"
#include "util/log_line.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Permission {

namespace {

using Util::FormatUtils::Text;
using Util::KelLog::Tag;

const Tag LOG_TAG = Tag::Create("permission", Tag::DEFAULT_COMPONENT_TAG, Tag::DEFAULT_SUB_SYSTEM_TAG);

}  // namespace

bool AppPermissionGroupInfo::Marshalling(Parcel& parcel) const
{
    // What is beyond the limit is dropped without a word; meant.
    const int32_t shownStatesSize = std::min(static_cast<int32_t>(shownStates.size()), MAX_STATES_SIZE);
    const int32_t disabledStatesSize = std::min(static_cast<int32_t>(disabledStates.size()), MAX_STATES_SIZE);
    const auto writeShownState = [&parcel](const std::string& shownState) { return WRITE(String, shownState); };
    const auto writeDisabledState = [&parcel](const std::string& disabledState) {
        return WRITE(String, disabledState);
    };

    return WRITE(String, bundleName) && WRITE(Int32, uid) && WRITE(String, permissionGroup) &&
           WRITE(String, checkedState) && WRITE(Int32, shownStatesSize) &&
           ForFirst(shownStatesSize, shownStates, writeShownState) && WRITE(Int32, disabledStatesSize) &&
           ForFirst(disabledStatesSize, disabledStates, writeDisabledState) && WRITE(String, disabledReason) &&
           WRITE(Int64, flags);
}

AppPermissionGroupInfo* AppPermissionGroupInfo::Unmarshalling(Parcel& parcel)
{
    std::unique_ptr<AppPermissionGroupInfo> info(new (std::nothrow) AppPermissionGroupInfo());
    if (info == nullptr) {
        LOG_ERROR("new AppPermissionGroupInfo failed.");
        return nullptr;
    }

    int32_t shownStatesSizeRead = 0;
    int32_t disabledStatesSizeRead = 0;
    const auto readShownStates = [&] {
        Util::ReserveAnnounced(info->shownStates, shownStatesSizeRead, parcel.GetReadableBytes());
        return Repeat(shownStatesSizeRead, [&] {
            std::string& shownState = info->shownStates.emplace_back();
            return READ_ELEMENT(String, shownState);
        });
    };
    const auto readDisabledStates = [&] {
        // Room for as many as are announced, at most the limit: most often it is one, and of its own accord the set
        // makes more for that.
        info->disabledStates.reserve(static_cast<size_t>(std::max(disabledStatesSizeRead, 0)));
        return Repeat(disabledStatesSizeRead, [&] {
            std::string disabledState;
            return READ_ELEMENT(String, disabledState) && (info->disabledStates.insert(std::move(disabledState)), true);
        });
    };

    // A negative count passes the check and reads as no states; meant.
    const bool isWhole =
        READ(String, info, bundleName) && READ(Int32, info, uid) && READ(String, info, permissionGroup) &&
        READ(String, info, checkedState) && READ_LOCAL(Int32, shownStatesSizeRead) &&
        CHECK_AT_MOST(shownStatesSizeRead, MAX_STATES_SIZE) && readShownStates() &&
        READ_LOCAL(Int32, disabledStatesSizeRead) && CHECK_AT_MOST(disabledStatesSizeRead, MAX_STATES_SIZE) &&
        readDisabledStates() && READ(String, info, disabledReason) && READ(Int64, info, flags);
    return isWhole ? info.release() : nullptr;
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
