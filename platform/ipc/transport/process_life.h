// SPDX-License-Identifier: Apache-2.0
// What fork and exit mean for the transport: a child of fork owns none of its parent's connections, and a process that
// is leaving carries out no more requests.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "vexa/base/mutex.h"

namespace VEXA::ipc {

class ProcessLife {
public:
    static ProcessLife& Get();

    // Installs the fork handler. Idempotent.
    void Watch();

    // True in a child of fork that has inherited a running transport. Such a process must not take any lock of the
    // transport: another thread of the parent may have held it.
    bool Forked() const { return forked_.load(std::memory_order_relaxed); }
    bool Exiting() const { return exiting_.load(std::memory_order_relaxed); }
    void SetExiting() { exiting_.store(true, std::memory_order_relaxed); }

    // The descriptors that a forked child closes, so that the kernel's word on a socket is about this process only.
    // They are made and closed here, so that no fork falls between a call and its entry.
    template <typename Open>
    int OpenFd(const Open& open)
    {
        MutexLock lock(mutex_);
        const int fd = open();
        if (fd >= 0) {
            Enter(fd);
        }
        return fd;
    }
    void CloseFd(int fd);

private:
    ProcessLife() = default;
    void Enter(int fd) VEXA_REQUIRES(mutex_);
    void CloseAllInChild() VEXA_REQUIRES(mutex_);
    static void BeforeFork();
    static void InParent();
    static void InChild();

    std::atomic<bool> forked_{false};
    std::atomic<bool> exiting_{false};
    Mutex mutex_;
    bool watching_ VEXA_GUARDED_BY(mutex_) = false;
    std::vector<uint64_t> openFds_ VEXA_GUARDED_BY(mutex_);  // one bit a descriptor
};

}  // namespace VEXA::ipc
