// SPDX-License-Identifier: Apache-2.0
#include "daemon/user.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <new>

#include "samgr_limits.h"

namespace VEXA::samgr {

namespace {

// The highest number is the kernel's "no user" and "no group".
bool ParseId(const std::string& text, uint32_t& id)
{
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, id);
    return error == std::errc() && last == end && id != UINT32_MAX;
}

std::vector<gid_t> GroupsOf(const std::string& name, gid_t gid)
{
    int count = 0;
    getgrouplist(name.c_str(), gid, nullptr, &count);
    std::vector<gid_t> groups(static_cast<size_t>(count));
    getgrouplist(name.c_str(), gid, groups.data(), &count);
    groups.resize(std::min(groups.size(), static_cast<size_t>(count)));  // they may have changed meanwhile
    return groups;
}

}  // namespace

void ThrowWithoutMemory(int error)
{
    if (error == ENOMEM) {
        throw std::bad_alloc();
    }
}

bool FindAccount(const std::string& user, UserAccount& account)
{
    std::vector<char> buffer(kMaxEntryBytes);
    passwd entry = {};
    passwd* found = nullptr;
    uid_t uid = 0;
    ThrowWithoutMemory(ParseId(user, uid) ? getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found)
                                          : getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found));
    if (found == nullptr) {
        return false;
    }
    account = {entry.pw_uid, entry.pw_gid, entry.pw_name, entry.pw_dir, entry.pw_shell, {}};
    account.groups = GroupsOf(account.name, account.gid);
    return true;
}

bool FindUid(const std::string& user, uid_t& uid)
{
    if (ParseId(user, uid)) {
        return true;
    }
    UserAccount account;
    const bool found = FindAccount(user, account);
    uid = account.uid;
    return found;
}

bool FindGid(const std::string& group, gid_t& gid)
{
    if (ParseId(group, gid)) {
        return true;
    }
    std::vector<char> buffer(kMaxEntryBytes);
    ::group entry = {};
    ::group* found = nullptr;
    ThrowWithoutMemory(getgrnam_r(group.c_str(), &entry, buffer.data(), buffer.size(), &found));
    gid = entry.gr_gid;
    return found != nullptr;
}

}  // namespace VEXA::samgr
