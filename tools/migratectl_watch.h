// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

#include "migratectl_output.h"

namespace migratectl {

// What has come of a request to start something.
struct StartOutcome {
    int exitStatus;
    bool isUnderWay;  // a migration, started by the request or before
};

// Registers for progress, runs `start`, and shows the migration, if there is one, until it has ended. A death of the
// service on the way is survived: it is started again by the next question. The exit status: EXIT_DONE when everything
// has been moved, EXIT_INCOMPLETE when something has not, EXIT_UNREACHABLE when the service stays away for half a
// minute; or that of `start`.
int StartAndWatch(const Options& options, const std::function<StartOutcome()>& start);

// The result of the migration, as `result` prints it.
int PrintResult(const Options& options);

}  // namespace migratectl
