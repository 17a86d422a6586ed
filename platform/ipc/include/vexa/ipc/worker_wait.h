// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "vexa/base/export.h"

namespace VEXA {

namespace ipc {
struct Worker;
}

// For the scope of a wait of this thread for something that another process brings about. Where the thread carries out
// requests, another one takes its place, so that requests, and what is waited for if it comes as one, find a thread.
class VEXA_EXPORT WorkerWait {
public:
    WorkerWait();
    ~WorkerWait();
    WorkerWait(const WorkerWait&) = delete;
    WorkerWait& operator=(const WorkerWait&) = delete;

private:
    ipc::Worker* const worker_;
    uint64_t process_ = 0;  // whose request the thread carries out
};

}  // namespace VEXA
