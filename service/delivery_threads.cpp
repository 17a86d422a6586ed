// SPDX-License-Identifier: Apache-2.0
#include "delivery_threads.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "service_limits.h"

namespace VEXA::UpdateEngine {

void DeliveryThreads::RunAt(Clock::time_point time, Delivery delivery)
{
    MutexLock lock(mutex_);
    if (!closed_) {
        waiting_.emplace(time, std::move(delivery));
        changed_.NotifyAll();
    }
}

void DeliveryThreads::Close()
{
    decltype(waiting_) dropped;  // after the mutex is free
    {
        MutexLock lock(mutex_);
        closed_ = true;
        waiting_.swap(dropped);
        changed_.NotifyAll();
        while (!changed_.WaitFor(mutex_, kIdle, [this]() VEXA_REQUIRES(mutex_) { return threads_ == 0; })) {
        }
    }
    if (watcher_.joinable()) {
        watcher_.join();
    }
}

void DeliveryThreads::Watch()
{
    MutexLock lock(mutex_);
    uint64_t seen = 0;
    while (!closed_) {
        const auto now = Clock::now();
        const auto due = waiting_.empty() ? now + kIdle : waiting_.begin()->first;
        auto look = threads_ == 0 ? due : due + kDeliveryPatience;
        if (look <= now) {
            // With all held up, half as many again are added, so that even a thousand slow deliveries soon have
            // threads.
            AddThreads(started_ == seen ? threads_ / 2 + 1 : 1);
            seen = started_;
            look = now + kDeliveryPatience;
        }
        changed_.WaitUntil(mutex_, look,
            [&]() VEXA_REQUIRES(mutex_) { return closed_ || (!waiting_.empty() && waiting_.begin()->first < due); });
    }
}

void DeliveryThreads::AddThreads(size_t wanted)
{
    for (size_t count = std::min(wanted, waiting_.size()); count > 0; --count) {
        try {
            std::thread([this] { Work(); }).detach();
            threads_++;
        } catch (const std::exception&) {
            return;  // no thread or no memory for one: the next look tries again
        }
    }
}

void DeliveryThreads::Work()
{
    MutexLock lock(mutex_);
    while (!waiting_.empty() && waiting_.begin()->first <= Clock::now()) {
        Delivery delivery = std::move(waiting_.extract(waiting_.begin()).mapped());
        started_++;
        lock.Unlock();
        delivery();
        delivery = nullptr;
        lock.Lock();
    }
    threads_--;
    changed_.NotifyAll();
}

}  // namespace VEXA::UpdateEngine
