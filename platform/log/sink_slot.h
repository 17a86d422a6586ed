// SPDX-License-Identifier: Apache-2.0
// The process's sink, which may be replaced while other threads write to it.
#pragma once

#include <array>
#include <atomic>

#include "vexa/base/mutex.h"
#include "vexa/log/log_sink.h"

namespace VEXA {

// Writers take no lock: they count themselves in one of two counters, and the replacing thread turns later writers to
// the other one and waits until the first is empty. It does so twice, for a writer that read which counter is current,
// was delayed, and counts itself in the old one only now.
class SinkSlot {
public:
    constexpr SinkSlot() = default;

    // Replaces the sink, null meaning the environment's, and returns the previous one when its writes are over.
    LogSink* Replace(LogSink* sink) VEXA_EXCLUDES(replaceMutex_);
    // Writes to the sink. False when it did not take the line.
    bool Write(const LogRecord& record);
    // In a child after fork: the writes of the parent's other threads never end here.
    void ForgetWriters();

private:
    void WaitForWriters();

    Mutex replaceMutex_{LockRank::LogSlot};
    std::atomic<LogSink*> sink_{nullptr};
    std::atomic<unsigned> current_{0};
    std::array<std::atomic<int>, 2> writers_{};
};

}  // namespace VEXA
