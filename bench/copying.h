// SPDX-License-Identifier: Apache-2.0
// How long the service takes for copies, beside `cp -a` for the same.
#pragma once

#include <cstddef>

#include "report.h"

namespace VEXA::bench {

// Measures `rounds` times and reports the medians, of the clock and of the processor; 0 leaves it out. All happens in
// memory where there is a file system for it. False when a copy failed.
bool MeasureCopies(size_t rounds, Report& report);

}  // namespace VEXA::bench
