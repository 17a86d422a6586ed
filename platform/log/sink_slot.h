// SPDX-License-Identifier: Apache-2.0
// The process's sink, which may be replaced while other threads write to it.
#pragma once

#include <array>
#include <atomic>

#include "vexa/log/log_sink.h"

namespace VEXA {

// Writers take no lock: they count themselves in one of two counters, and the replacing thread turns later writers to
// the other one and waits until the first is empty. It does so twice, for a writer that read which counter is current,
// was delayed, and counts itself in the old one only now.
class SinkSlot {
public:
    constexpr SinkSlot() = default;

    // Replaces the sink, null meaning the environment's, and returns the previous one when its writes are over.
    LogSink* Replace(LogSink* sink);
    // Writes to the sink. False when it did not take the line.
    bool Write(const LogRecord& record) { return WriteInTurn(Turn(), record); }
    // The two steps of Write, between which a thread may be delayed: which counter is current, and the write itself.
    unsigned Turn() const { return current_.load(); }
    bool WriteInTurn(unsigned turn, const LogRecord& record);
    // For a child after fork, where the writes and replacements of the parent's other threads never end.
    void ForgetOtherThreads();

private:
    void WaitForWriters();

    std::atomic<bool> isReplacing_{false};  // a lock that a child can open
    std::atomic<LogSink*> sink_{nullptr};
    std::atomic<unsigned> current_{0};
    std::array<std::atomic<int>, 2> writers_{};
};

}  // namespace VEXA
