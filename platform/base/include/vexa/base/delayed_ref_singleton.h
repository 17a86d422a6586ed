// SPDX-License-Identifier: Apache-2.0
// A lazily made, never destroyed single instance of T.
#pragma once

#include <atomic>

#include "vexa/base/mutex.h"

namespace VEXA {

// GetInstance may be called from any thread; the instance is made once, on first use, and lives until the process
// ends, so references to it stay good in exit handlers and on threads that outlive main.
template <typename T>
class DelayedRefSingleton {
public:
    virtual ~DelayedRefSingleton() = default;

    static T& GetInstance()
    {
        T* instance = instance_.load(std::memory_order_acquire);
        if (instance == nullptr) {
            MutexLock lock(mutex_);
            instance = instance_.load(std::memory_order_relaxed);
            if (instance == nullptr) {
                instance = new T;
                instance_.store(instance, std::memory_order_release);
            }
        }
        return *instance;
    }

protected:
    DelayedRefSingleton() = default;
    DelayedRefSingleton(const DelayedRefSingleton&) = delete;
    DelayedRefSingleton& operator=(const DelayedRefSingleton&) = delete;

private:
    static inline std::atomic<T*> instance_{nullptr};
    static inline Mutex mutex_{LockRank::Singleton};
};

}  // namespace VEXA
