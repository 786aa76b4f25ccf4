// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace VARN::Host {

// The text of an errno, with its number. May be called by several threads at once.
std::string ErrorText(int error);

}  // namespace VARN::Host
