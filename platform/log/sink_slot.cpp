// SPDX-License-Identifier: Apache-2.0
#include "sink_slot.h"

#include <chrono>
#include <thread>

#include "log_limits.h"
#include "log_settings.h"

namespace VEXA {
namespace {

class Counted {
public:
    explicit Counted(std::atomic<int>& counter) : counter_(counter) { counter_.fetch_add(1); }
    ~Counted() { counter_.fetch_sub(1); }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

private:
    std::atomic<int>& counter_;
};

}  // namespace

LogSink* SinkSlot::Replace(LogSink* sink)
{
    while (isReplacing_.exchange(true)) {
        std::this_thread::yield();
    }
    LogSink* previous = sink_.exchange(sink);
    if (previous != nullptr) {
        WaitForWriters();
        WaitForWriters();
    }
    isReplacing_.store(false);
    return previous;
}

void SinkSlot::WaitForWriters()
{
    const unsigned turned = current_.fetch_xor(1);
    const auto deadline = std::chrono::steady_clock::now() + kLogReplaceWait;
    while (writers_[turned].load() != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
}

bool SinkSlot::WriteInTurn(unsigned turn, const LogRecord& record)
{
    const Counted counted(writers_[turn]);
    LogSink* sink = sink_.load();
    return (sink != nullptr ? *sink : EnvironmentSink()).Write(record);
}

void SinkSlot::ForgetOtherThreads()
{
    isReplacing_.store(false);
    for (std::atomic<int>& writers : writers_) {
        writers.store(0);
    }
}

}  // namespace VEXA
