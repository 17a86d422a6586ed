// SPDX-License-Identifier: Apache-2.0
// Requests through both libraries, beside a raw stream socket that carries the same bytes.
#pragma once

#include "report.h"

namespace VEXA::bench {

struct RequestCalls {
    size_t pinned = 200'000;  // of each side
    size_t free = 20'000;
    size_t threads = 200'000;  // together
    size_t texts64k = 20'000;
    size_t texts1m = 2'000;
    size_t heap = 1'000'000;
    size_t idleClients = 1'000;
    size_t kills = 30;
};

// Starts a manager, a service and a raw server, measures, and ends them. What would make no call is left out. False
// when a process or a call failed.
bool MeasureRequests(const RequestCalls& calls, Report& report);

}  // namespace VEXA::bench
