// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>

#include "socket.h"

namespace VEXA::ipc {

// How much a peer may get wrong: so many things at once, and one a second in the long run. Each costs this process more
// than it costs the peer.
class RefusalBudget {
public:
    static constexpr int kMost = 64;

    bool Take(Deadline now)
    {
        // Full again when so much time has passed that counting it is of no use.
        const auto gained = std::chrono::duration_cast<std::chrono::seconds>(now - since_);
        if (gained.count() > 0) {
            left_ = gained.count() >= kMost ? kMost : std::min(kMost, left_ + static_cast<int>(gained.count()));
            since_ = now;
        }
        left_ = std::max(left_ - 1, -1);
        return left_ >= 0;
    }

private:
    int left_ = kMost;
    Deadline since_{};
};

}  // namespace VEXA::ipc
