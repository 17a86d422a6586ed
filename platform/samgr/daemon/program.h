// SPDX-License-Identifier: Apache-2.0
// How the table of services starts and ends programs.
#pragma once

#include <sys/types.h>

#include <string>

#include "daemon/profile.h"

namespace VEXA::samgr {

// How a program ended.
struct ProgramEnd {
    // Set when it never came to run: the errno, and what the start failed at.
    int startErrno = 0;
    std::string startStep;
    bool bySignal = false;
    int status = 0;  // exit status or signal
};

// Implemented over processes; tests bring their own. Neither operation blocks.
class ProgramStarter {
public:
    virtual ~ProgramStarter() = default;
    // The new process's id, or 0 and the reason. A program that can't be executed may be found out later, by its end.
    virtual pid_t Start(const Profile& profile, std::string& reason) = 0;
    // Ends a program that Start has started and whose end has not been reported.
    virtual void Kill(pid_t pid) = 0;
    // Returns the last line that such a program has written to standard error, empty for none; still when its end is
    // reported.
    virtual std::string LastLine(pid_t pid) = 0;
};

}  // namespace VEXA::samgr
