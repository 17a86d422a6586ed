// SPDX-License-Identifier: Apache-2.0
// Tells the transport of fork and exit: a child of fork owns none of its parent's connections, and a process that is
// leaving carries out no more requests.
#pragma once

#include <atomic>
#include <cerrno>
#include <set>
#include <utility>

#include "vexa/base/mutex.h"

namespace VEXA::ipc {

// A process has one.
class ProcessLife {
public:
    // Installs the fork handlers. Idempotent.
    static void Watch();

    // True in a child of fork that has inherited a running transport. Such a process must not take any lock of the
    // transport: another thread of the parent may have held it.
    static bool Forked() { return forked_.load(std::memory_order_relaxed); }
    static bool Exiting() { return exiting_.load(std::memory_order_relaxed); }
    // For the exit handler: ends all connections and listeners, whoever uses them. No descriptor is opened afterwards.
    static void Leave();

    // The transport's descriptors are made and closed here, so that no fork falls between a call and its entry. A
    // forked child closes them: the end of a socket then means the end of this process only.
    template <typename Open>
    static int OpenFd(const Open& open)
    {
        ProcessLife& life = Get();
        MutexLock lock(life.mutex_);
        if (Exiting()) {
            errno = ESHUTDOWN;
            return -1;
        }
        // The entry is made first: afterwards there might be no memory for it.
        std::set<int>::node_type entry = life.open_.extract(life.open_.insert(-1).first);
        const int fd = open();
        if (fd >= 0) {
            entry.value() = fd;
            life.open_.insert(std::move(entry));
        }
        return fd;
    }
    static void CloseFd(int fd);

private:
    ProcessLife() = default;
    static ProcessLife& Get();

    static inline std::atomic<bool> forked_{false};
    static inline std::atomic<bool> exiting_{false};
    Mutex mutex_{LockRank::ProcessLife};
    bool watching_ VEXA_GUARDED_BY(mutex_) = false;
    std::set<int> open_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
