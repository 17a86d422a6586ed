// SPDX-License-Identifier: Apache-2.0
// Where sockets stand in the runtime directory.
#pragma once

#include <string>

#include "wire.h"

namespace VEXA::ipc {

std::string ContextSocketPath();
std::string EndpointDirectory();
std::string EndpointPath(EndpointId id);

// Makes the runtime directory and its folder of endpoints; false, with a log line, when they can't be used.
bool CreateRuntimeDirectory();
// Removes the sockets of processes that have ended without doing so.
void RemoveStaleEndpoints();

}  // namespace VEXA::ipc
