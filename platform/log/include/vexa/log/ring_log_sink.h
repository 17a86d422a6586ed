// SPDX-License-Identifier: Apache-2.0
// The last lines, kept in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vexa/base/mutex.h"
#include "vexa/log/log_sink.h"

namespace VEXA {

// A line that outlives its Write.
struct LogEntry {
    uint64_t number;  // counts the lines of one sink from 1
    uint32_t type;
    uint32_t level;
    uint32_t domain;
    std::string tag;
    pid_t pid;
    pid_t tid;
    timespec time;
    std::string format;
    std::string message;

    LogEntry(uint64_t lineNumber, const LogRecord& record)
        : number(lineNumber),
          type(record.type),
          level(record.level),
          domain(record.domain),
          tag(record.tag),
          pid(record.pid),
          tid(record.tid),
          time(record.time),
          format(record.format),
          message(record.message)
    {}
};

// Keeps the last `capacity` lines (at least 1). All operations may be called from any thread; they wait for each
// other only as long as a copy takes.
class VEXA_EXPORT RingLogSink : public LogSink {
public:
    RingLogSink();  // for kLogRingLines lines
    explicit RingLogSink(size_t capacity);

    bool Write(const LogRecord& record) override;
    // The kept lines numbered above `number`, oldest first. A gap to `number` means that lines were overwritten.
    std::vector<LogEntry> After(uint64_t number) const;

    // The ring that KOLOG_SINK=ring chooses.
    static RingLogSink& Process();

private:
    const size_t capacity_;
    mutable Mutex mutex_{LockRank::LogSink};
    std::vector<LogEntry> entries_ VEXA_GUARDED_BY(mutex_);  // line n stands at (n - 1) % capacity_
    uint64_t last_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace VEXA
