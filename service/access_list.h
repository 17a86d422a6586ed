// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <endian.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace VEXA::UpdateEngine {

// Returns the permissions for a copy that lacks the original's access control list, so that nobody may do more than
// with the list. The list is the value of the attribute system.posix_acl_access.
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
    // Users that the list names may be in the group or not, so both get no more than each of them, up to the mask.
    const mode_t group = accessOf(OWNING_GROUP | USER | MASK);
    const mode_t other = permissions & accessOf(USER | GROUP | MASK);
    return (permissions & ~mode_t{S_IRWXG | S_IRWXO}) | group << 3 | other;
}

// Does the same for a copy with another group: that group may do no more than all others.
inline mode_t PermissionsOfOtherGroup(mode_t permissions)
{
    return permissions & (~mode_t{S_IRWXG} | (permissions & S_IRWXO) << 3);
}

}  // namespace VEXA::UpdateEngine
