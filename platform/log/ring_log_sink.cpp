// SPDX-License-Identifier: Apache-2.0
#include "vexa/log/ring_log_sink.h"

#include <sched.h>

#include <algorithm>

#include "log_limits.h"

namespace VEXA {
namespace {

// Others hold the mutex for one copy. It may be held for ever only in a child that was forked meanwhile: then give up.
bool LockSoon(Mutex& mutex) VEXA_TRY_ACQUIRE(true, mutex) VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    for (int attempt = 0; attempt < kLogRingAttempts; ++attempt) {
        if (mutex.try_lock()) {
            return true;
        }
        sched_yield();
    }
    return false;
}

}  // namespace

RingLogSink::RingLogSink() : RingLogSink(kLogRingLines) {}

RingLogSink::RingLogSink(size_t capacity) : capacity_(std::max<size_t>(capacity, 1)) {}

bool RingLogSink::Write(const LogRecord& record)
{
    if (!LockSoon(mutex_)) {
        return false;
    }
    ++last_;
    if (entries_.size() < capacity_) {
        entries_.emplace_back(last_, record);
    } else {
        entries_[(last_ - 1) % capacity_] = LogEntry(last_, record);
    }
    mutex_.unlock();
    return true;
}

std::vector<LogEntry> RingLogSink::After(uint64_t number) const
{
    std::vector<LogEntry> lines;
    MutexLock lock(mutex_);
    const uint64_t oldest = last_ - entries_.size() + 1;
    for (uint64_t wanted = std::max(oldest, number + 1); wanted <= last_; ++wanted) {
        lines.push_back(entries_[(wanted - 1) % capacity_]);
    }
    return lines;
}

RingLogSink& RingLogSink::Process()
{
    static auto* ring = new RingLogSink;
    return *ring;
}

}  // namespace VEXA
