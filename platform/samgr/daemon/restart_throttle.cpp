// SPDX-License-Identifier: Apache-2.0
#include "daemon/restart_throttle.h"

#include <algorithm>

namespace VEXA::samgr {

void RestartThrottle::Note(const Death& death)
{
    if (death.killed) {
        return;
    }
    const bool quick = !death.registered || (death.failed && death.end - death.start < kQuickLife);
    if (!quick) {
        deaths_ = 0;
        return;
    }
    deaths_ = death.end - last_ < kForget ? deaths_ + 1 : 1;
    last_ = death.end;
}

RestartThrottle::TimePoint RestartThrottle::EarliestStart(TimePoint now) const
{
    if (deaths_ < kFreeDeaths || now - last_ >= kForget) {
        return now;
    }
    constexpr size_t kDoublings = 5;
    const auto factor = 1 << std::min(deaths_ - kFreeDeaths, kDoublings);
    return std::max(now, last_ + std::min(kFirstDelay * factor, kMaxDelay));
}

}  // namespace VEXA::samgr
