// SPDX-License-Identifier: Apache-2.0
// A migration service that answers every request at once, and says what the benchmarks want to know.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "raw_stream.h"

namespace VEXA::bench {

// Requests beside those of the migration service, without a token.
enum BenchRequestCode : uint32_t {
    SEND_TEXT = 1000,   // uint32 bytes -> a text of that length
    TELL_STATE = 1001,  // -> int32 process, uint32 living callbacks
};

// Registers with the manager and serves until the process is killed. Each progress callback gets one event as soon as
// it is registered. Returns 1 when it can't register.
int ServeRequests();

// The service as a caller sees it. All fail, with false, when it is not there.
struct ServiceState {
    pid_t process = -1;
    size_t callbacks = 0;
};
bool AskState(ServiceState& state);
bool AskText(size_t bytes);

// The frames of one StartMigrate request, and of one for a text, and of this service's replies to them.
MessageSizes StartMigrateSizes();
MessageSizes TextSizes(size_t bytes);

}  // namespace VEXA::bench
