// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace SecurityPrivacyTools {

// Sees to it that descriptors 0 to 2 are taken. A program may be started with one of them closed; the next thing that
// it opens, say the connection to a service, would then be what it prints to. Writing to a descriptor that was closed
// fails, as it should. To be called before anything is opened.
inline void OccupyStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0) {
            // The lowest free number is this one. Opened for the wrong direction, so that its use fails.
            static_cast<void>(::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

}  // namespace SecurityPrivacyTools
