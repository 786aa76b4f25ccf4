// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <system_error>

namespace VARN::Host {

// The text of an errno, with its number. May be called by several threads at once.
inline std::string ErrorText(int error)
{
    return std::generic_category().message(error) + " (errno " + std::to_string(error) + ")";
}

}  // namespace VARN::Host
