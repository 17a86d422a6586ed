// SPDX-License-Identifier: Apache-2.0
#include "vexa/testing/recording_log_sink.h"

#include <cstdlib>

#include "checked_log.h"

namespace VEXA {
namespace {

RecordedMessage SplitPrefix(const LogEntry& entry)
{
    const std::string& message = entry.message;
    const size_t end = message.find(")]");
    const size_t open = end == message.npos ? end : message.rfind('(', end);
    if (message.empty() || message.front() != '[' || open == message.npos) {
        return {entry.level, "", message};
    }
    return {entry.level, message.substr(1, open - 1), message.substr(end + 2),
        static_cast<int>(std::strtol(message.c_str() + open + 1, nullptr, 10))};
}

}  // namespace

RecordingLogSink::RecordingLogSink(uint32_t level) : previousLevel_(KoLogGetLevel())
{
    previous_ = SetLogSink(this);
    // The next line would report what the sink before has dropped, which is not of this time.
    KoLogLine({KOLOG_TYPE_CORE, 0, ""}, KOLOG_FATAL, "a recording begins");
    Clear();
    KoLogSetLevel(level);
}

RecordingLogSink::~RecordingLogSink()
{
    KoLogSetLevel(previousLevel_);
    SetLogSink(previous_);
}

bool RecordingLogSink::Write(const LogRecord& record)
{
    MutexLock lock(mutex_);
    entries_.emplace_back(entries_.size() + 1, record);
    return true;
}

std::vector<LogEntry> RecordingLogSink::Entries() const
{
    MutexLock lock(mutex_);
    return entries_;
}

std::vector<RecordedMessage> RecordingLogSink::Messages() const
{
    std::vector<RecordedMessage> messages;
    for (const LogEntry& entry : Entries()) {
        messages.push_back(SplitPrefix(entry));
    }
    return messages;
}

void RecordingLogSink::Clear()
{
    MutexLock lock(mutex_);
    entries_.clear();
}

}  // namespace VEXA
