// SPDX-License-Identifier: Apache-2.0
// Keeps descriptors 0 to 2 from being used for something else. Only programs call this, never a library.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace VEXA {

// Takes those of the descriptors 0 to 2 that the program was started without, so that no socket or file becomes one of
// them and gets what is printed. Reading there finds the end; writing fails. Call it before anything else is opened.
inline void OccupyStandardStreams()
{
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);
}

}  // namespace VEXA
