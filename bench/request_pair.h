// SPDX-License-Identifier: Apache-2.0
// StartMigrate through the whole library, beside a raw stream socket that carries the same bytes.
#pragma once

#include "report.h"

namespace VEXA::bench {

struct RequestCalls {
    size_t pinned = 200'000;  // of each side
    size_t free = 20'000;
    size_t threads = 200'000;  // together
    size_t heap = 1'000'000;
};

// Starts a manager, a service and a raw server, measures, and ends them. What would make no call is left out. False
// when a process or a call failed.
bool MeasureRequests(const RequestCalls& calls, Report& report);

}  // namespace VEXA::bench
