// SPDX-License-Identifier: Apache-2.0
// Lets a process ask the IPC runtime about itself, and set its limits.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "vexa/base/export.h"
#include "vexa/ipc/iremote_object.h"

namespace VEXA {

class VEXA_EXPORT IPCSkeleton {
public:
    // Return the process and the user that sent the request which this thread is carrying out, as the kernel said when
    // the sender connected; this process itself outside a request. -1 where the kernel did not say: unknown is never 0,
    // which is root.
    static pid_t GetCallingPid();
    static uid_t GetCallingUid();
    // True when that process was in the group when it connected. A process that the kernel does not name is in none.
    static bool IsCallerInGroup(gid_t group);
    // Returns the endpoint of that process: a number that no other process of the runtime directory has, now or later.
    // 0 where there is none: outside a request of a process that has not used the runtime.
    static uint64_t GetCallingEndpoint();
    // True when a line may be logged that this process has caused, which can do so as often as it likes: a few in a
    // second may. The lines that are left out are counted in a line of the runtime's own.
    static bool MayLogCaller();

    // True when this process is a child that was forked with the runtime at work. Its calls fail, and locks that are
    // held across a call may be held for ever here, by a thread that only the parent has.
    static bool IsForkedChild();

    // True when the object's process is known to live: it has answered this one, for which the thread waits until the
    // deadline. False at once when the object is null or dead.
    static bool AwaitProcess(const sptr<IRemoteObject>& object, std::chrono::steady_clock::time_point deadline);

    // Sets how many threads may carry out incoming requests at the same time (16 unless set). Threads that are waiting
    // for a request of their own don't count.
    static void SetMaxWorkThreads(size_t count);
};

}  // namespace VEXA
