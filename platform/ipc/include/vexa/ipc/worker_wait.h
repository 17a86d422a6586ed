// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "vexa/base/export.h"

namespace VEXA {

namespace ipc {
struct Worker;
}

// Lives while this thread waits for something that another process brings about. If the thread is a worker, another
// worker takes its place, so that there is a thread for requests, one of which may bring what is waited for.
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
