// SPDX-License-Identifier: Apache-2.0
#include "vexa/log/kolog.h"

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "log_formatter.h"
#include "log_settings.h"
#include "sink_slot.h"

namespace VEXA {
namespace {

// The environment has not been read yet. No level is lower, so the first line always gets to where it is read.
constexpr uint32_t kLevelUnread = 0;
enum : int { PRIVATE_UNREAD, PRIVATE_HIDDEN, PRIVATE_SHOWN };

// All built without a constructor that runs and never destroyed, so that lines can be printed at any time.
constinit std::atomic<uint32_t> g_level{kLevelUnread};
constinit std::atomic<int> g_private{PRIVATE_UNREAD};
constinit std::atomic<uint64_t> g_dropped{0};
constinit SinkSlot g_slot;
// True while this thread is in a sink: lines that the sink logs itself are discarded, else it would call itself.
thread_local bool t_insideSink = false;

[[maybe_unused]] const int g_forkHandler = pthread_atfork(nullptr, nullptr, [] { g_slot.ForgetOtherThreads(); });

uint32_t ReadLevel()
{
    uint32_t level = g_level.load(std::memory_order_relaxed);
    if (level == kLevelUnread) {
        const uint32_t read = EnvironmentLevel();
        level = g_level.compare_exchange_strong(level, read) ? read : level;
    }
    return level;
}

bool ShowsPrivate()
{
    int shown = g_private.load(std::memory_order_relaxed);
    if (shown == PRIVATE_UNREAD) {
        const int read = EnvironmentShowsPrivate() ? PRIVATE_SHOWN : PRIVATE_HIDDEN;
        shown = g_private.compare_exchange_strong(shown, read) ? read : shown;
    }
    return shown == PRIVATE_SHOWN;
}

class InsideSink {
public:
    InsideSink() { t_insideSink = true; }
    ~InsideSink() { t_insideSink = false; }
    InsideSink(const InsideSink&) = delete;
    InsideSink& operator=(const InsideSink&) = delete;
};

// A sink of the program's own may throw; that costs its line and nothing else.
bool WriteToSink(const LogRecord& record)
{
    const InsideSink inside;
    try {
        return g_slot.Write(record);
    } catch (const abi::__forced_unwind&) {
        throw;  // the thread is being cancelled
    } catch (...) {
        return false;
    }
}

// Says how many lines were lost before this one.
void ReportDropped(LogRecord record)
{
    const uint64_t dropped = g_dropped.exchange(0, std::memory_order_relaxed);
    if (dropped == 0) {
        return;
    }
    char message[48];
    const int size =
        std::snprintf(message, sizeof message, "%llu lines dropped", static_cast<unsigned long long>(dropped));
    record.level = KOLOG_WARN;
    record.format = "%{public}llu lines dropped";
    record.message = {message, static_cast<size_t>(size)};
    if (!WriteToSink(record)) {
        g_dropped.fetch_add(dropped, std::memory_order_relaxed);
    }
}

void Deliver(
    uint32_t type, uint32_t level, uint32_t domain, const char* tag, const char* format, std::string_view message)
{
    LogRecord record{type, level, domain, tag != nullptr ? tag : "", getpid(), gettid(), {}, format, message};
    clock_gettime(CLOCK_REALTIME, &record.time);
    ReportDropped(record);
    if (!WriteToSink(record)) {
        g_dropped.fetch_add(1, std::memory_order_relaxed);
    }
}

// Kept out of the entry point, so that an unwanted line doesn't pay for the buffer.
__attribute__((noinline)) int PrintWanted(
    uint32_t type, uint32_t level, uint32_t domain, const char* tag, const char* format, va_list arguments)
{
    if (format == nullptr) {
        return -1;
    }
    if (t_insideSink) {
        return 0;
    }
    const int error = errno;
    MessageBuffer message;
    const bool usable = FormatMessage(message, format, arguments, ShowsPrivate());
    Deliver(type, level, domain, tag, format, message.View());
    errno = error;
    return usable ? static_cast<int>(message.View().size()) : -1;
}

}  // namespace

int KoLogPrint(uint32_t type, uint32_t level, uint32_t domain, const char* tag, const char* format, ...)
{
    if (!KoLogIsLoggable(level)) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int printed = PrintWanted(type, level, domain, tag, format, arguments);
    va_end(arguments);
    return printed;
}

bool KoLogIsLoggable(uint32_t level)
{
    return level >= g_level.load(std::memory_order_relaxed) && level >= ReadLevel();
}

void KoLogSetLevel(uint32_t level)
{
    g_level.store(std::max(level, kLevelUnread + 1), std::memory_order_relaxed);
}

uint32_t KoLogGetLevel()
{
    return ReadLevel();
}

void KoLogSetPrivateShown(bool shown)
{
    g_private.store(shown ? PRIVATE_SHOWN : PRIVATE_HIDDEN, std::memory_order_relaxed);
}

LogSink* SetLogSink(LogSink* sink)
{
    return g_slot.Replace(sink);
}

}  // namespace VEXA
