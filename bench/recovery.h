// SPDX-License-Identifier: Apache-2.0
// How long a client is without its callback when the service is killed.
#pragma once

#include "bench_world.h"
#include "report.h"

namespace VEXA::bench {

// Kills the service again and again. False when a callback did not come back.
bool MeasureRecovery(World& world, size_t kills, Report& report);

}  // namespace VEXA::bench
