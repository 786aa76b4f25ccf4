// SPDX-License-Identifier: Apache-2.0
#include "host/base/error_text.h"

#include <cstring>

namespace VARN::Host {
namespace {

// strerror_r, the only one that threads may share everywhere, is of one of two kinds: GNU's tells where the text is.
[[maybe_unused]] const char* TextOf(const char* text, const char* /*buffer*/)
{
    return text;
}
[[maybe_unused]] const char* TextOf(int result, const char* buffer)
{
    return result == 0 ? buffer : "unknown error";
}

}  // namespace

std::string ErrorText(int error)
{
    char buffer[128];
    return TextOf(::strerror_r(error, buffer, sizeof(buffer)), buffer) + (" (errno " + std::to_string(error) + ")");
}

}  // namespace VARN::Host
