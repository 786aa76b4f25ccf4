// SPDX-License-Identifier: Apache-2.0
#include "util/log_tag.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::KelLog {

namespace {

constexpr uint8_t LOG_TYPE = 0;
constexpr uint32_t LOG_DOMAIN = 0x5350;  // "SP"

}  // namespace

Tag Tag::Create(const std::string& moduleTag, const std::string& componentTag, const std::string& subSystemTag)
{
    return Tag(moduleTag, componentTag, subSystemTag);
}

Tag::Tag(const std::string& moduleTag, const std::string& componentTag, const std::string& subSystemTag)
    : logType_(LOG_TYPE),
      domain_(LOG_DOMAIN),
      subSystemTag_(subSystemTag),
      componentTag_(componentTag),
      moduleTag_(moduleTag)
{
}

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer::Util::KelLog
