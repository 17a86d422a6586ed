// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>

#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// Finds out when a recovery has told the service of a callback while a caller was changing it: nobody knows then in
// which order the service has heard of both. No lock is held between Begin and End.
class RegistrationOverlap {
public:
    enum class By { CALLER, RECOVERY };

    void Begin(By by) VEXA_EXCLUDES(mutex_)
    {
        MutexLock lock(mutex_);
        ++underWay_;
        hasRecovery_ = hasRecovery_ || by == By::RECOVERY;
        overlapped_ = overlapped_ || (underWay_ > 1 && hasRecovery_);
    }
    // True for the last of those that overlapped: it has to tell the service again what is in force.
    bool End() VEXA_EXCLUDES(mutex_)
    {
        MutexLock lock(mutex_);
        if (--underWay_ > 0) {
            return false;
        }
        hasRecovery_ = false;
        return std::exchange(overlapped_, false);
    }

private:
    Mutex mutex_{LockRank::KitsOverlap};
    int underWay_ VEXA_GUARDED_BY(mutex_) = 0;
    bool hasRecovery_ VEXA_GUARDED_BY(mutex_) = false;  // among those since it was quiet
    bool overlapped_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA::UpdateEngine
