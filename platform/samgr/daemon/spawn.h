// SPDX-License-Identifier: Apache-2.0
// Starts a program as its profile wants it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "daemon/profile.h"
#include "daemon/program.h"
#include "daemon/user.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::samgr {

// Everything that the new process needs, worked out before the fork.
struct SpawnPlan {
    std::string path;
    std::vector<std::string> arguments;    // the program's name first
    std::vector<std::string> environment;  // NAME=value
    std::string directory;
    std::optional<UserAccount> account;  // to switch to
};

// False, with the reason, when a variable is not set, the program is nowhere, or the user can't be had. A relative
// program is looked for beside the manager's own and in ../libexec.
bool PlanProgram(const Profile& profile, SpawnPlan& plan, std::string& reason);

struct SpawnedProgram {
    pid_t pid = -1;
    UniqueFd output;  // its standard output, and its standard error; neither blocks
    UniqueFd errors;
    UniqueFd failure;  // says why it could not be executed, see ReadStartFailure
};

// Forks; the child goes on by itself. It gets a session of its own, no signal blocked, SIGPIPE ignored (its log must
// not kill it when the manager has ended) and no descriptor but standard input, which is empty, output and error.
bool Spawn(const SpawnPlan& plan, SpawnedProgram& spawned, std::string& reason);

// Fills startErrno and startStep when the child has failed before it became the program.
void ReadStartFailure(const UniqueFd& failure, ProgramEnd& end);

}  // namespace VEXA::samgr
