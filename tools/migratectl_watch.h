// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "migratectl_output.h"

namespace migratectl {

// Registers for progress, runs `start`, and shows the migration until it has ended. A death of the service on the way
// is survived: it is started again by the next question. The exit status: EXIT_DONE when everything has been moved,
// EXIT_INCOMPLETE when something has not, EXIT_UNREACHABLE when the service stays away for half a minute; or what
// `start` returned when that is not EXIT_DONE or EXIT_REFUSED with a migration running.
int StartAndWatch(const Options& options, const std::function<int()>& start);

// The result of the migration, as `result` prints it.
int PrintResult(const Options& options);

}  // namespace migratectl
