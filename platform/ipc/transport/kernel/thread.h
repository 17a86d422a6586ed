// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

namespace VEXA::ipc {

// Starts a detached thread with all signals blocked, so that the host's handlers run on the host's threads. `name` is a
// literal of at most 15 characters. False when the kernel refuses.
bool StartThread(const char* name, std::function<void()> body);

// That function, or what a test has in its place to do the work of the threads step by step.
using ThreadStarter = std::function<bool(const char* name, std::function<void()> body)>;

}  // namespace VEXA::ipc
