// SPDX-License-Identifier: Apache-2.0
#include "handler_gate.h"

#include <algorithm>
#include <chrono>

namespace VEXA::UpdateEngine {

bool HandlerGate::Enter()
{
    MutexLock lock(mutex_);
    if (!closed_) {
        inside_.push_back(std::this_thread::get_id());
    }
    return !closed_;
}

void HandlerGate::Leave()
{
    MutexLock lock(mutex_);
    inside_.erase(std::find(inside_.begin(), inside_.end(), std::this_thread::get_id()));
    left_.NotifyAll();
}

bool HandlerGate::IsClosed()
{
    MutexLock lock(mutex_);
    return closed_;
}

bool HandlerGate::Close()
{
    const auto self = std::this_thread::get_id();
    MutexLock lock(mutex_);
    closed_ = true;
    const auto onlySelfInside = [&]() VEXA_NO_THREAD_SAFETY_ANALYSIS {
        return std::all_of(inside_.begin(), inside_.end(), [self](std::thread::id id) { return id == self; });
    };
    // The wait goes on until all have left, because the caller then destroys what they use. Their own waits are
    // bounded.
    while (!left_.WaitFor(mutex_, std::chrono::seconds(10), onlySelfInside)) {
    }
    return inside_.empty();
}

}  // namespace VEXA::UpdateEngine
