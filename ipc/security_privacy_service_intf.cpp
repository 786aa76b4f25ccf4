// SPDX-License-Identifier: Apache-2.0
#include "security_privacy/security_privacy_service_intf.h"

// Not for its names, but because it registers the proxy with the broker registry. A program takes from a static library
// only the objects that it names something of, and it names nothing of the proxy's. But a program that implements the
// interface or casts to it names its destructor or its type, and these are in this one.
#include "ipc/security_privacy_service_proxy.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

SecurityPrivacyServiceIntf::~SecurityPrivacyServiceIntf() = default;

std::string SecurityPrivacyServiceIntf::MessageCode::ToString(uint32_t code)
{
    switch (code) {
        case GET_APP_PERMISSION_GROUP_INFOS_BY_APP:
            return "GET_APP_PERMISSION_GROUP_INFOS_BY_APP";
        case GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION:
            return "GET_APP_PERMISSION_GROUP_INFOS_BY_PERMISSION";
        case SET_APP_PERMISSION_GROUP_CHECKED_STATE:
            return "SET_APP_PERMISSION_GROUP_CHECKED_STATE";
        case GET_PERMISSION_USAGE_RECORD_SUMMARY:
            return "GET_PERMISSION_USAGE_RECORD_SUMMARY";
        case GET_PERMISSION_USAGE_RECORD_TIMELINE:
            return "GET_PERMISSION_USAGE_RECORD_TIMELINE";
        case GTOKEN_POLICY_ADD_POLICY:
            return "GTOKEN_POLICY_ADD_POLICY";
        case GTOKEN_POLICY_GET_POLICY:
            return "GTOKEN_POLICY_GET_POLICY";
        case GTOKEN_POLICY_REMOVE_POLICY:
            return "GTOKEN_POLICY_REMOVE_POLICY";
        default:
            return "UNKNOWN";
    }
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
