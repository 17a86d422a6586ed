// SPDX-License-Identifier: Apache-2.0
// The manager's process: publishes the manager, runs its event loop, and stops its programs when it is told to.
#pragma once

#include <string>
#include <vector>

namespace VEXA::samgr {

enum ExitStatus {
    EXIT_STOPPED = 0,
    EXIT_MANAGER_EXISTS = 3,  // another manager lives in the runtime directory
    EXIT_CANT_SERVE = 4,      // the runtime directory or the system's means can't be used
};

// Serves until SIGTERM or SIGINT; returns the process's exit status. SIGHUP reads the profiles again.
int RunDaemon(const std::vector<std::string>& profileDirectories);

}  // namespace VEXA::samgr
