// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace SecurityPrivacyTools {

// Sees to it that descriptors 0 to 2 are taken. A program may be started with one of them closed; the next thing that
// it opens, say the connection to a service, would then be what it prints to. Writing to a descriptor that was closed
// fails, as it should. To be called before anything is opened.
void OccupyStandardDescriptors();

}  // namespace SecurityPrivacyTools
