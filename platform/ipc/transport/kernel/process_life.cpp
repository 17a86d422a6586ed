// SPDX-License-Identifier: Apache-2.0
#include "process_life.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace VEXA::ipc {

ProcessLife& ProcessLife::Get()
{
    static ProcessLife* const life = new ProcessLife;
    return *life;
}

void ProcessLife::Watch()
{
    ProcessLife& life = Get();
    MutexLock lock(life.mutex_);
    if (std::exchange(life.watching_, true)) {
        return;
    }
    const auto beforeFork = []() VEXA_NO_THREAD_SAFETY_ANALYSIS { Get().mutex_.lock(); };
    const auto inParent = []() VEXA_NO_THREAD_SAFETY_ANALYSIS { Get().mutex_.unlock(); };
    // Runs between fork and whatever the child does: system calls only.
    const auto inChild = []() VEXA_NO_THREAD_SAFETY_ANALYSIS {
        // A child of the child finds its parent's descriptors closed already, and their numbers in other use.
        if (!forked_.exchange(true)) {
            for (const int fd : Get().open_) {
                close(fd);
            }
        }
        Get().mutex_.unlock();
    };
    pthread_atfork(beforeFork, inParent, inChild);
}

void ProcessLife::Leave()
{
    ProcessLife& life = Get();
    MutexLock lock(life.mutex_);
    exiting_ = true;
    for (const int fd : life.open_) {
        shutdown(fd, SHUT_RDWR);  // does nothing to what is not a socket
    }
}

void ProcessLife::CloseFd(int fd)
{
    ProcessLife& life = Get();
    MutexLock lock(life.mutex_);
    life.open_.erase(fd);
    close(fd);
}

}  // namespace VEXA::ipc
