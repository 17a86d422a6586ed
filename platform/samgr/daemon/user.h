// SPDX-License-Identifier: Apache-2.0
// Look-ups in the system's database of users and groups. They throw std::bad_alloc when the system has no memory for
// one.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace VEXA::samgr {

struct UserAccount {
    uid_t uid = 0;
    gid_t gid = 0;
    std::string name;
    std::string home;
    std::string shell;
    std::vector<gid_t> groups;
};

// Throws std::bad_alloc when an error number says that memory is short: what is not known then may be known all the
// same.
void ThrowWithoutMemory(int error);
// `user` is a name or a number. False when there is no such account.
bool FindAccount(const std::string& user, UserAccount& account);
// Do the same for the number alone; a number needs no account.
bool FindUid(const std::string& user, uid_t& uid);
bool FindGid(const std::string& group, gid_t& gid);

}  // namespace VEXA::samgr
