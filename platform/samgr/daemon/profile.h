// SPDX-License-Identifier: Apache-2.0
// The profile of a service, read from one JSON file. docs/manager.md describes the fields.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "samgr_limits.h"

namespace VEXA::samgr {

// The process that sends a request, as the kernel knows it.
struct Caller {
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    // Tells whether the process is in the group. Null: it is in none.
    bool (*isInGroup)(gid_t group) = nullptr;
};

// The users and groups that may do something.
struct AccessList {
    bool everyone = false;
    std::vector<uid_t> uids;
    std::vector<gid_t> gids;

    // The unknown user, uid -1, is nobody that a list can name.
    bool Allows(const Caller& caller) const;
};

struct Profile {
    int32_t id = 0;
    std::string program;
    std::vector<std::string> arguments;
    std::string user;                    // empty: the manager's own
    uid_t uid = static_cast<uid_t>(-1);  // of that user
    std::string directory;               // empty: /
    std::map<std::string, std::string> environment;
    std::chrono::milliseconds startTimeout = kStartTimeout;
    AccessList registrars;
    AccessList lookup;
};

using ProfilePtr = std::shared_ptr<const Profile>;

// Reads a profile from its text. False, with the reason in `error`, when it is not a valid one.
bool ParseProfile(const std::string& text, Profile& profile, std::string& error);

// The profiles of the directories' *.json files in the order of directories and names. Files that are not valid, and
// those that name an identifier again, are logged and left out.
std::vector<ProfilePtr> ReadProfiles(const std::vector<std::string>& directories);

// Looks a variable up; null when it is not set.
using VariableLookup = std::function<const char*(const std::string& name)>;

// Replaces ${NAME} by the variable's value and $$ by one dollar sign. False, with the reason in `error`, when a
// variable is not set or a brace is missing.
bool ExpandVariables(const std::string& text, const VariableLookup& lookup, std::string& result, std::string& error);

}  // namespace VEXA::samgr
