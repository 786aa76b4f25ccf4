// SPDX-License-Identifier: Apache-2.0
#include "service/access_policy.h"

#include <algorithm>
#include <utility>

#include "security_privacy/security_privacy_service_intf.h"

namespace SecurityPrivacyExample {
namespace {

using MessageCode = VARN::AppSecurityPrivacy::SecurityPrivacyServer::SecurityPrivacyServiceIntf::MessageCode;

bool IsChange(uint32_t messageCode)
{
    switch (messageCode) {
        case MessageCode::SET_APP_PERMISSION_GROUP_CHECKED_STATE:
        case MessageCode::GTOKEN_POLICY_ADD_POLICY:
        case MessageCode::GTOKEN_POLICY_REMOVE_POLICY:
            return true;
        default:
            return false;
    }
}

}  // namespace

AccessPolicy::AccessPolicy(std::vector<uid_t> changers, bool isReadOnly)
    : changers_(std::move(changers)), isReadOnly_(isReadOnly)
{
}

bool AccessPolicy::IsAllowed(uint32_t messageCode, uid_t uid) const
{
    return !IsChange(messageCode) || (!isReadOnly_ && MaySeeFingerprints(uid));
}

bool AccessPolicy::MaySeeFingerprints(uid_t uid) const
{
    return std::find(changers_.begin(), changers_.end(), uid) != changers_.end();
}

}  // namespace SecurityPrivacyExample
