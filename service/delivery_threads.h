// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>

#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// Runs deliveries at their times, on few threads while they are quick. A slow one delays nobody: threads are added
// while one that is due has waited for kDeliveryPatience, and end when nothing is due. All operations may be called
// from any thread.
class DeliveryThreads {
public:
    using Clock = std::chrono::steady_clock;
    using Delivery = std::function<void()>;

    DeliveryThreads() : watcher_([this] { Watch(); }) {}
    ~DeliveryThreads() { Close(); }

    // Runs the delivery at that time or soon after; never once the threads are closed.
    void RunAt(Clock::time_point time, Delivery delivery);
    // Drops deliveries that wait, and waits for those that are under way.
    void Close();

private:
    void Watch();
    void AddThreads(size_t wanted) VEXA_REQUIRES(mutex_);
    void Work();

    Mutex mutex_{LockRank::DeliveryThreads};
    CondVar changed_;
    std::multimap<Clock::time_point, Delivery> waiting_ VEXA_GUARDED_BY(mutex_);
    uint64_t started_ VEXA_GUARDED_BY(mutex_) = 0;  // deliveries
    size_t threads_ VEXA_GUARDED_BY(mutex_) = 0;
    bool closed_ VEXA_GUARDED_BY(mutex_) = false;
    std::thread watcher_;  // last: it uses the others
};

}  // namespace VEXA::UpdateEngine
