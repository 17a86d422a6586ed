// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

// Besides the migration service's requests, client_peer's service tells its process: -> int32.
constexpr uint32_t PEER_PID = 1000;
