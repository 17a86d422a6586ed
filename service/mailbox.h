// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "service_limits.h"
#include "vexa/base/mutex.h"

namespace VEXA::UpdateEngine {

// Takes items at once and delivers them on a thread of its own, in order: whoever posts never waits for the receiver.
// All operations may be called from any thread.
template <typename Item>
class Mailbox {
public:
    // Gets everything posted since the last delivery; false when the receiver is gone for good.
    using Deliver = std::function<bool(std::vector<Item>)>;
    // Makes room when a slow receiver has let many items gather.
    using Compact = std::function<void(std::vector<Item>&)>;

    struct Limits {
        std::chrono::milliseconds interval;  // from the begin of one delivery to the next, at least
        size_t items;                        // that wait
    };

    Mailbox(const Limits& limits, Deliver deliver, Compact compact)
        : limits_(limits), deliver_(std::move(deliver)), compact_(std::move(compact)), thread_([this] { Run(); })
    {}
    // As Close, and waits for the delivery under way.
    ~Mailbox()
    {
        Close();
        thread_.join();
    }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    // False when there is no room or the mailbox is closed.
    bool Post(Item item)
    {
        MutexLock lock(mutex_);
        if (items_.size() >= limits_.items && compact_) {
            compact_(items_);
        }
        if (closed_ || items_.size() >= limits_.items) {
            return false;
        }
        items_.push_back(std::move(item));
        changed_.NotifyAll();
        return true;
    }
    // No delivery begins after this. Doesn't wait.
    void Close()
    {
        MutexLock lock(mutex_);
        closed_ = true;
        items_.clear();
        changed_.NotifyAll();
    }
    // True when the destructor will not have to wait.
    bool HasEnded() const
    {
        MutexLock lock(mutex_);
        return ended_;
    }

private:
    void Run()
    {
        MutexLock lock(mutex_);
        while (!closed_) {
            if (!changed_.WaitFor(
                    mutex_, kIdle, [this]() VEXA_REQUIRES(mutex_) { return closed_ || !items_.empty(); }) ||
                closed_) {
                continue;
            }
            const auto next = std::chrono::steady_clock::now() + limits_.interval;
            std::vector<Item> items = std::exchange(items_, {});
            lock.Unlock();
            const bool isThere = deliver_(std::move(items));
            lock.Lock();
            closed_ = closed_ || !isThere;
            changed_.WaitUntil(mutex_, next, [this]() VEXA_REQUIRES(mutex_) { return closed_; });
        }
        ended_ = true;
    }

    const Limits limits_;
    const Deliver deliver_;
    const Compact compact_;
    mutable Mutex mutex_{LockRank::Mailbox};
    CondVar changed_;
    std::vector<Item> items_ VEXA_GUARDED_BY(mutex_);
    bool closed_ VEXA_GUARDED_BY(mutex_) = false;
    bool ended_ VEXA_GUARDED_BY(mutex_) = false;
    std::thread thread_;  // last: it uses the others
};

}  // namespace VEXA::UpdateEngine
