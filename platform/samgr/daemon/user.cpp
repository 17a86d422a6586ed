// SPDX-License-Identifier: Apache-2.0
#include "daemon/user.h"

#include <grp.h>
#include <pwd.h>

#include <charconv>

namespace VEXA::samgr {

namespace {

// The highest number is the kernel's "no user".
bool ParseUid(const std::string& text, uid_t& uid)
{
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, uid);
    return error == std::errc() && last == end && uid != static_cast<uid_t>(-1);
}

std::vector<gid_t> GroupsOf(const std::string& name, gid_t gid)
{
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (getgrouplist(name.c_str(), gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count));
        getgrouplist(name.c_str(), gid, groups.data(), &count);
    }
    groups.resize(static_cast<size_t>(count));
    return groups;
}

}  // namespace

bool FindAccount(const std::string& user, UserAccount& account)
{
    std::vector<char> buffer(size_t{16} * 1024);
    passwd entry = {};
    passwd* found = nullptr;
    uid_t uid = 0;
    if (ParseUid(user, uid)) {
        getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    } else {
        getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
    }
    if (found == nullptr) {
        return false;
    }
    account = {entry.pw_uid, entry.pw_gid, entry.pw_name, entry.pw_dir, entry.pw_shell, {}};
    account.groups = GroupsOf(account.name, account.gid);
    return true;
}

bool FindUid(const std::string& user, uid_t& uid)
{
    if (ParseUid(user, uid)) {
        return true;
    }
    UserAccount account;
    const bool found = FindAccount(user, account);
    uid = account.uid;
    return found;
}

}  // namespace VEXA::samgr
