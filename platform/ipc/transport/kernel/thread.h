// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <new>
#include <thread>

#include "transport/limits.h"

namespace VEXA::ipc {

// Starts a detached thread with all signals blocked, so that the program's handlers run on the program's own threads.
// `name` is a literal of at most 15 characters. False, with errno and a log line, when the kernel refuses.
bool StartThread(const char* name, std::function<void()> body);

// StartThread, or a test's function in its place, which leaves the work of the threads to the test.
using ThreadStarter = std::function<bool(const char* name, std::function<void()> body)>;

// Repeats a step that throws std::bad_alloc, until there is memory for it; false when there is none for kStallLimit.
template <typename Step>
bool RetryForMemory(const Step& step)
{
    for (auto left = kStallLimit / kShortagePause; left > 0; --left) {
        try {
            step();
            return true;
        } catch (const std::bad_alloc&) {
            std::this_thread::sleep_for(kShortagePause);
        }
    }
    return false;
}

}  // namespace VEXA::ipc
