// SPDX-License-Identifier: Apache-2.0
// Slows the starts of a service that keeps crashing.
#pragma once

#include <chrono>
#include <cstddef>

namespace VEXA::samgr {

// A quick death is one before the program registered, or less than kQuickLife after its start with a status or signal
// other than success. SIGKILL is somebody's will and no crash. After kFreeDeaths quick deaths in a row, starts are
// delayed. A program that ends otherwise, or kForgetDeaths without a quick death, ends the row.
class RestartThrottle {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

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
