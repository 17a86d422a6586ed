// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <endian.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace VEXA::UpdateEngine {

// The permissions for a copy without the access control list that the original has, so that nobody may do more than
// with it. The list is the value of the attribute system.posix_acl_access.
inline mode_t PermissionsWithout(mode_t permissions, const std::string& list)
{
    enum Tag : uint16_t { USER = 2, OWNING_GROUP = 4, GROUP = 8, MASK = 16 };
    constexpr size_t kHeaderBytes = 4;
    constexpr size_t kEntryBytes = 8;
    constexpr mode_t kAll = 7;
    const auto accessOf = [&list](int tags) {
        mode_t access = kAll;
        for (size_t at = kHeaderBytes; at + kEntryBytes <= list.size(); at += kEntryBytes) {
            uint16_t words[2];
            memcpy(words, list.data() + at, sizeof(words));
            access &= (le16toh(words[0]) & tags) != 0 ? le16toh(words[1]) : kAll;
        }
        return access;
    };
    // Whom the list names, up to the mask, may be anybody in the group, or anybody else.
    const mode_t group = accessOf(OWNING_GROUP | USER | MASK);
    const mode_t other = permissions & accessOf(USER | GROUP | MASK);
    return (permissions & ~mode_t{S_IRWXG | S_IRWXO}) | group << 3 | other;
}

// The same for a copy whose group is another: what is for the group is no more than what all others may.
inline mode_t PermissionsOfOtherGroup(mode_t permissions)
{
    return permissions & (~mode_t{S_IRWXG} | (permissions & S_IRWXO) << 3);
}

}  // namespace VEXA::UpdateEngine
