// SPDX-License-Identifier: Apache-2.0
// What the service of samgr_peer answers.
#pragma once

#include <cstdint>

enum PeerRequest : uint32_t {
    PEER_PID = 1,       // -> int32
    PEER_DESCRIBE = 2,  // -> string: what it was started with
    PEER_ABORT = 3,
};
