// SPDX-License-Identifier: Apache-2.0
#include "common/standard_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace SecurityPrivacyTools {

void OccupyStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) >= 0) {
            continue;
        }
        // The lowest free number is this one. Opened for the wrong direction, so that its use fails.
        const int opened = ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        static_cast<void>(opened);
    }
}

}  // namespace SecurityPrivacyTools
