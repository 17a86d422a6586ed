// SPDX-License-Identifier: Apache-2.0
// Slows the starts of a service that keeps crashing.
#pragma once

#include <chrono>
#include <cstddef>

namespace VEXA::samgr {

// A quick death is one before the program registered, or less than kQuickLife after its start with a status or signal
// other than success. SIGKILL is somebody's will and no crash. From kFreeDeaths quick deaths in a row on, the next
// start comes kFirstDelay after the last one, doubled with each further one up to kMaxDelay, which leaves an answer to
// callers who wait 5 seconds. A program that ends otherwise, or kForget without a quick death, ends the row.
class RestartThrottle {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::milliseconds;

    static constexpr Duration kQuickLife{1000};
    static constexpr size_t kFreeDeaths = 5;
    static constexpr Duration kForget{10000};
    static constexpr Duration kFirstDelay{100};
    static constexpr Duration kMaxDelay{3200};

    struct Death {
        TimePoint start;
        TimePoint end;
        bool registered = false;
        bool failed = false;  // a status or signal other than success
        bool killed = false;  // by SIGKILL
    };
    void Note(const Death& death);
    // `now`, or later when the next start has to wait.
    TimePoint EarliestStart(TimePoint now) const;

private:
    size_t deaths_ = 0;
    TimePoint last_;
};

}  // namespace VEXA::samgr
