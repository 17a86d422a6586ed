// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace VEXA::ipc {

// Process, user and primary group of a peer, as the kernel reports them for a connection (SO_PEERCRED); -1 where it
// reports none.
struct Credentials {
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    // False when either side is unknown: two processes that the kernel can't name are not the same one.
    bool IsSameAs(const Credentials& other) const { return pid > 0 && pid == other.pid && uid == other.uid; }
};

// Names a process where something is counted by process: by its pid, or by its endpoint when the kernel reports none.
inline uint64_t ProcessNumber(const Credentials& who, uint64_t endpoint)
{
    return who.pid > 0 ? static_cast<uint64_t>(who.pid) : endpoint;
}

// A process that may send requests.
struct Caller : Credentials {
    uint64_t endpoint;
    std::vector<gid_t> groups;  // as they were when it connected (SO_PEERGROUPS), the primary one among them
};

}  // namespace VEXA::ipc
