// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>

#include "socket.h"
#include "transport/limits.h"

namespace VEXA::ipc {

// Counts what a peer gets wrong: it may be kMostRefusals things at once, and one a second in the long run.
class RefusalBudget {
public:
    // False when the peer has got too much wrong.
    bool Take(Deadline now)
    {
        // After so long the budget is full again, so longer idle times need no arithmetic.
        const auto gained = std::chrono::duration_cast<std::chrono::seconds>(now - since_);
        if (gained.count() > 0) {
            left_ = gained.count() >= kMostRefusals ? kMostRefusals
                                                    : std::min(kMostRefusals, left_ + static_cast<int>(gained.count()));
            since_ = now;
        }
        left_ = std::max(left_ - 1, -1);
        return left_ >= 0;
    }

private:
    int left_ = kMostRefusals;
    Deadline since_{};
};

}  // namespace VEXA::ipc
