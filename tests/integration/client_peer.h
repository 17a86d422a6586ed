// SPDX-License-Identifier: Apache-2.0
// What the service of client_peer does besides the migration service's requests.
#pragma once

#include <cstdint>

enum ClientPeerRequest : uint32_t {
    PEER_PID = 1000,     // -> int32
    PEER_ANSWER,         // int32: the result of every StartMigrate from now on; PEER_HANGS ends the answers
    PEER_ENTERED,        // -> int32: how many StartMigrates have come
    PEER_REGISTRATIONS,  // -> int32: how many progress callbacks have come
    PEER_GIVE_CALLBACK,  // -> the callback registered now, or null
};

constexpr int32_t PEER_HANGS = -1000;
