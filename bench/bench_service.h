// SPDX-License-Identifier: Apache-2.0
// A migration service that answers every request at once.
#pragma once

#include "raw_stream.h"

namespace VEXA::bench {

// Registers with the manager and serves until the process is killed. Returns 1 when it can't register.
int ServeRequests();

// The frames of one StartMigrate request and of this service's reply to it.
MessageSizes RequestSizes();

}  // namespace VEXA::bench
