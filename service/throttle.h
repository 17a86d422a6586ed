// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "service_limits.h"

namespace VEXA::UpdateEngine {

// Holds copying down to a rate. Belongs to one thread.
class Throttle {
public:
    using Clock = std::chrono::steady_clock;

    // 0: no limit.
    explicit Throttle(uint64_t bytesPerSecond) : rate_(bytesPerSecond) {}

    bool IsLimited() const { return rate_ != 0; }
    // Returns the size of the largest piece after which the wait is still short.
    size_t PieceBytes() const
    {
        constexpr size_t kPiecesPerSecond = 40;
        return rate_ == 0 ? kPieceBytes : std::clamp<size_t>(rate_ / kPiecesPerSecond, 1, kPieceBytes);
    }

    // Until when to wait after `bytes` more, at a limited rate. Time that was not used is not saved up.
    Clock::time_point Spend(uint64_t bytes, Clock::time_point now)
    {
        const std::chrono::duration<double> time(static_cast<double>(bytes) / static_cast<double>(rate_));
        return free_ = std::max(free_, now) + std::chrono::duration_cast<Clock::duration>(time);
    }

private:
    const uint64_t rate_;
    Clock::time_point free_;
};

// Measures how fast bytes are copied, from which the remaining time follows. Pauses longer than a second don't count.
class RateMeter {
public:
    using Clock = std::chrono::steady_clock;

    void Add(uint64_t bytes, Clock::time_point now)
    {
        if (last_ != Clock::time_point()) {
            active_ += std::min<Clock::duration>(now - last_, std::chrono::seconds(1));
        }
        last_ = now;
        bytes_ += bytes;
    }
    // Whole seconds for `bytes` more, rounded up; 0 when nothing is known yet.
    uint64_t SecondsFor(uint64_t bytes) const
    {
        const double seconds = std::chrono::duration<double>(active_).count();
        if (bytes_ == 0 || seconds <= 0) {
            return 0;
        }
        const double rate = static_cast<double>(bytes_) / seconds;
        return static_cast<uint64_t>(std::min(static_cast<double>(bytes) / rate, 1e15)) + (bytes > 0 ? 1 : 0);
    }

private:
    Clock::time_point last_;
    Clock::duration active_{0};
    uint64_t bytes_ = 0;
};

}  // namespace VEXA::UpdateEngine
