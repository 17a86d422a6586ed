// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexa/base/mutex.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/ipc/worker_wait.h"

namespace VEXA::UpdateEngine {

// Holds a mutex that another thread may keep for the length of a lookup. A worker that waits for it is counted as
// blocked, because the lookup's outcome comes as a request that needs a worker. In a child that was forked during a
// lookup the mutex stays locked for ever: there the lock fails, and its owner must not touch what the mutex guards.
class VEXA_SCOPED_CAPABILITY LookupLock {
public:
    explicit LookupLock(Mutex& mutex) VEXA_ACQUIRE(mutex) : mutex_(mutex), held_(Acquire(mutex)) {}
    ~LookupLock() VEXA_RELEASE()
    {
        if (held_) {
            mutex_.unlock();
        }
    }
    LookupLock(const LookupLock&) = delete;
    LookupLock& operator=(const LookupLock&) = delete;

    explicit operator bool() const { return held_; }

private:
    static bool Acquire(Mutex& mutex) VEXA_NO_THREAD_SAFETY_ANALYSIS
    {
        if (mutex.try_lock()) {
            return true;
        }
        if (IPCSkeleton::IsForkedChild()) {
            return false;
        }
        const WorkerWait wait;
        mutex.lock();
        return true;
    }

    Mutex& mutex_;
    const bool held_;
};

}  // namespace VEXA::UpdateEngine
