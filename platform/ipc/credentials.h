// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace VEXA::ipc {

// Process and user of a peer, as the kernel reports them for a connection (SO_PEERCRED); -1 where it reports none.
struct Credentials {
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    // False when either side is unknown: two processes that the kernel can't name are not the same one.
    bool IsSameAs(const Credentials& other) const { return pid > 0 && pid == other.pid && uid == other.uid; }
};

}  // namespace VEXA::ipc
