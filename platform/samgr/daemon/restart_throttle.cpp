// SPDX-License-Identifier: Apache-2.0
#include "daemon/restart_throttle.h"

#include <algorithm>

#include "samgr_limits.h"

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
    deaths_ = death.end - last_ < kForgetDeaths ? deaths_ + 1 : 1;
    last_ = death.end;
}

RestartThrottle::TimePoint RestartThrottle::EarliestStart(TimePoint now) const
{
    if (deaths_ < kFreeDeaths) {
        return now;
    }
    auto delay = kFirstDelay;
    for (size_t deaths = kFreeDeaths; deaths < deaths_ && delay < kMaxDelay; ++deaths) {
        delay *= 2;
    }
    return std::max(now, last_ + std::min(delay, kMaxDelay));
}

}  // namespace VEXA::samgr
