// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "delivery_threads.h"
#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// Takes items at once and delivers them in order, one delivery at a time: whoever posts never waits for the receiver.
// Has a thread only while it delivers, and lives at least as long. All operations may be called from any thread.
template <typename Item>
class Mailbox : public std::enable_shared_from_this<Mailbox<Item>> {
public:
    // Gets everything posted since the last delivery; false when the receiver is gone for good.
    using Deliver = std::function<bool(std::vector<Item>)>;
    // Makes room when a slow receiver has let many items gather.
    using Compact = std::function<void(std::vector<Item>&)>;

    // `interval`: from the begin of one delivery to the next, at least. `most`: items that wait. `threads` must live
    // longer.
    Mailbox(DeliveryThreads& threads, std::chrono::milliseconds interval, size_t most, Deliver deliver, Compact compact)
        : threads_(threads),
          interval_(interval),
          most_(most),
          deliver_(std::move(deliver)),
          compact_(std::move(compact))
    {}

    // False when there is no room or the mailbox is closed.
    bool Post(Item item)
    {
        MutexLock lock(mutex_);
        if (items_.size() >= most_ && compact_) {
            compact_(items_);
        }
        if (closed_ || items_.size() >= most_) {
            return false;
        }
        items_.push_back(std::move(item));
        if (!std::exchange(scheduled_, true)) {
            Schedule();
        }
        return true;
    }
    // Lets no further delivery begin. Doesn't wait.
    void Close()
    {
        MutexLock lock(mutex_);
        closed_ = true;
        items_.clear();
    }

private:
    void Schedule() VEXA_REQUIRES(mutex_)
    {
        threads_.RunAt(next_, [self = this->shared_from_this()] { self->DeliverItems(); });
    }
    void DeliverItems()
    {
        MutexLock lock(mutex_);
        if (closed_) {
            return;
        }
        next_ = DeliveryThreads::Clock::now() + interval_;
        std::vector<Item> items = std::exchange(items_, {});
        lock.Unlock();
        const bool isThere = deliver_(std::move(items));
        lock.Lock();
        closed_ = closed_ || !isThere;
        scheduled_ = !closed_ && !items_.empty();
        if (scheduled_) {
            Schedule();
        }
    }

    DeliveryThreads& threads_;
    const std::chrono::milliseconds interval_;
    const size_t most_;
    const Deliver deliver_;
    const Compact compact_;
    Mutex mutex_{LockRank::Mailbox};
    std::vector<Item> items_ VEXA_GUARDED_BY(mutex_);
    bool closed_ VEXA_GUARDED_BY(mutex_) = false;
    bool scheduled_ VEXA_GUARDED_BY(mutex_) = false;  // or being delivered
    DeliveryThreads::Clock::time_point next_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::UpdateEngine
