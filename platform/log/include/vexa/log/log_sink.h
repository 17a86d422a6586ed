// SPDX-License-Identifier: Apache-2.0
// Where the log's lines go.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "vexa/base/export.h"

namespace VEXA {

// One line. The texts are good only while Write runs.
struct LogRecord {
    uint32_t type;
    uint32_t level;
    uint32_t domain;
    const char* tag;
    pid_t pid;
    pid_t tid;
    timespec time;             // real time
    const char* format;        // as the caller gave it
    std::string_view message;  // formatted; may hold any bytes
};

class VEXA_EXPORT LogSink {
public:
    virtual ~LogSink() = default;
    // Takes one line, or returns false when it would have to wait or can't: the line is then counted as dropped.
    // Called on the thread that logs, on several threads at once, and in children after fork. Must not block, and
    // lines that it logs itself are discarded.
    virtual bool Write(const LogRecord& record) = 0;
};

// Makes `sink` the process's sink and returns the previous one; null stands for the sink that KOLOG_SINK chooses
// ("stderr", "file:PATH", "journal" or "ring"; standard error when unset or unusable). The caller keeps the sink alive
// until another has replaced it. When this returns, no thread is inside the previous sink any more and it may go; for
// that the call waits for the writes that are under way. When one hangs it gives up after twice kLogReplaceWait
// (docs/logging.md). Not to be called from inside a sink.
VEXA_EXPORT LogSink* SetLogSink(LogSink* sink);

// Lines on standard error, whatever descriptor 2 is at the time. The mode of the descriptor is not touched.
VEXA_EXPORT std::unique_ptr<LogSink> MakeStderrLogSink();

// Lines appended to a file, made with mode 0640 when absent. Null, with errno set, when it can't be opened.
VEXA_EXPORT std::unique_ptr<LogSink> MakeFileLogSink(const std::string& path);

// Entries in the system journal, with the fields MESSAGE, PRIORITY, SYSLOG_IDENTIFIER (the tag), TID, KOLOG_TYPE,
// KOLOG_LEVEL, KOLOG_DOMAIN and KOLOG_FORMAT. Null, with errno set, when no journal runs.
VEXA_EXPORT std::unique_ptr<LogSink> MakeJournalLogSink();

// The line as the text sinks write it, without the line feed:
// "2026-11-24T21:53:07.123Z 411 415 I D002E11/MIGRATE_KITS: message", where control characters are escaped.
VEXA_EXPORT std::string ToLogLine(const LogRecord& record);

}  // namespace VEXA
