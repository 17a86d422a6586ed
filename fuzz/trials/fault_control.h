// SPDX-License-Identifier: Apache-2.0
// The file in memory that the trial of faults shares with the library that it loads into every process.
#pragma once

#include <atomic>

namespace VEXA::trials {

inline constexpr const char* kFunctions[] = {"malloc", "pthread_create", "socket", "connect", "accept4", "send", "recv",
    "epoll_create1", "epoll_ctl", "epoll_wait", "eventfd", "open", "mmap"};
inline constexpr const char* kRoles[] = {"", "client", "service", "manager"};

// All zeros at first.
struct FaultControl {
    std::atomic<bool> isArmed;
    std::atomic<int> role;      // of the process whose calls are counted
    std::atomic<int> function;  // the one whose calls are counted
    std::atomic<int> nth;       // the call that fails
    std::atomic<int> calls;
};

}  // namespace VEXA::trials
