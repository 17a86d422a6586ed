// SPDX-License-Identifier: Apache-2.0
// Records log lines, so that a test can compare them.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "vexa/base/mutex.h"
#include "vexa/log/kolog.h"
#include "vexa/log/log_sink.h"
#include "vexa/log/ring_log_sink.h"

namespace VEXA {

// A message with its "[file(line)]" prefix split off; without such a prefix `file` is empty and `line` 0.
struct RecordedMessage {
    uint32_t level = 0;
    std::string file;
    std::string text;
    int line = 0;

    // Does not compare `line`, which changes with every edit of the source.
    friend bool operator==(const RecordedMessage& a, const RecordedMessage& b)
    {
        return a.level == b.level && a.file == b.file && a.text == b.text;
    }
    friend std::ostream& operator<<(std::ostream& out, const RecordedMessage& message)
    {
        return out << '{' << message.level << ", \"" << message.file << "\", \"" << message.text << "\"}";
    }
};

// Is the process's sink as long as it lives, and lets lines from `level` on pass; both are put back at its end. Nested
// ones must end in reverse order. All operations may be called from any thread.
class RecordingLogSink : public LogSink {
public:
    explicit RecordingLogSink(uint32_t level = KOLOG_DEBUG);
    ~RecordingLogSink() override;
    RecordingLogSink(const RecordingLogSink&) = delete;
    RecordingLogSink& operator=(const RecordingLogSink&) = delete;

    bool Write(const LogRecord& record) override;

    // Every line so far: level, domain, tag, raw format, formatted message.
    std::vector<LogEntry> Entries() const;
    std::vector<RecordedMessage> Messages() const;
    void Clear();

private:
    const uint32_t previousLevel_;
    LogSink* previous_ = nullptr;
    mutable Mutex mutex_{LockRank::LogSink};
    std::vector<LogEntry> entries_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA
