// SPDX-License-Identifier: Apache-2.0
// A mutex that clang's thread-safety analysis understands: `-Wthread-safety` then
// proves at compile time that whatever is VEXA_GUARDED_BY it is touched under it. Its rank
// says in which order it is taken.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "vexa/base/lock_rank.h"
#include "vexa/base/no_cancel.h"

#if defined(__clang__)
#define VEXA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEXA_THREAD_ANNOTATION(x)
#endif

#define VEXA_CAPABILITY(x) VEXA_THREAD_ANNOTATION(capability(x))
#define VEXA_SCOPED_CAPABILITY VEXA_THREAD_ANNOTATION(scoped_lockable)
#define VEXA_GUARDED_BY(x) VEXA_THREAD_ANNOTATION(guarded_by(x))
#define VEXA_PT_GUARDED_BY(x) VEXA_THREAD_ANNOTATION(pt_guarded_by(x))
#define VEXA_REQUIRES(...) VEXA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VEXA_ACQUIRE(...) VEXA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VEXA_RELEASE(...) VEXA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VEXA_TRY_ACQUIRE(...) VEXA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define VEXA_EXCLUDES(...) VEXA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VEXA_NO_THREAD_SAFETY_ANALYSIS VEXA_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace VEXA {

class VEXA_CAPABILITY("mutex") Mutex {
public:
    constexpr explicit Mutex(LockRank rank) noexcept : rank_(rank) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() VEXA_ACQUIRE()
    {
        Note(LockStep::TAKE);
        mutex_.lock();
    }
    void unlock() VEXA_RELEASE()
    {
        Note(LockStep::RELEASE);
        mutex_.unlock();  // last: whoever waits for it may end this object
    }
    bool try_lock() VEXA_TRY_ACQUIRE(true)
    {
        const bool taken = mutex_.try_lock();
        if (taken) {
            Note(LockStep::TAKE_AT_ONCE);
        }
        return taken;
    }

private:
    friend class CondVar;

    void Note(LockStep step) const
    {
        if constexpr (kChecksLockOrder) {
            NoteLock(rank_, step);
        }
    }

    std::mutex mutex_;
    const LockRank rank_;
};

// Holds the mutex for its scope; may be unlocked and locked again inside it.
class VEXA_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) VEXA_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() VEXA_RELEASE()
    {
        if (held_) {
            mutex_.unlock();
        }
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void Unlock() VEXA_RELEASE()
    {
        held_ = false;
        mutex_.unlock();
    }
    void Lock() VEXA_ACQUIRE()
    {
        mutex_.lock();
        held_ = true;
    }

private:
    Mutex& mutex_;
    bool held_ = true;
};

// A condition variable for Mutex. Every wait is bounded: there is no wait without a deadline.
class CondVar {
public:
    // Waits until `ready` holds or the deadline passes; returns what `ready` says at the end.
    // The predicate runs with the mutex held.
    template <typename Predicate>
    bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline, Predicate ready)
        VEXA_REQUIRES(mutex) VEXA_NO_THREAD_SAFETY_ANALYSIS
    {
        // The wait takes the mutex again, so that nothing may be held that is taken after it.
        mutex.Note(LockStep::RELEASE);
        mutex.Note(LockStep::TAKE);
        const NoCancel guard;
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        const bool result = condition_.wait_until(lock, deadline, ready);
        lock.release();
        return result;
    }
    template <typename Rep, typename Period, typename Predicate>
    bool WaitFor(Mutex& mutex, std::chrono::duration<Rep, Period> limit, Predicate ready) VEXA_REQUIRES(mutex)
    {
        return WaitUntil(mutex, std::chrono::steady_clock::now() + limit, ready);
    }
    void NotifyOne() { condition_.notify_one(); }
    void NotifyAll() { condition_.notify_all(); }

private:
    std::condition_variable condition_;
};

}  // namespace VEXA
