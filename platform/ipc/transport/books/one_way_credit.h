// SPDX-License-Identifier: Apache-2.0
// The bound on one-way requests that are under way from one process to another: kept by the sender, checked by the
// receiver.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "transport/limits.h"
#include "vexa/base/mutex.h"

namespace VEXA::ipc {

// The sender's side counts what is under way. SendOrder is held from taking credit to handing the frame to the link, so
// that frames leave in the order in which credit was taken.
class OneWayCredit {
public:
    Mutex& SendOrder() VEXA_THREAD_ANNOTATION(lock_returned(sendOrder_)) { return sendOrder_; }

    bool Take(uint64_t bytes)
    {
        MutexLock lock(mutex_);
        if (frames_ >= kMaxQueuedOneWayFrames || bytes_ + bytes > kMaxQueuedOneWayBytes) {
            return false;
        }
        ++frames_;
        bytes_ += bytes;
        return true;
    }
    // Counts an acknowledgement; false when it is of something that was never sent.
    bool GiveBack(uint64_t frames, uint64_t bytes)
    {
        MutexLock lock(mutex_);
        if (frames > frames_ || bytes > bytes_) {
            return false;
        }
        frames_ -= frames;
        bytes_ -= bytes;
        return true;
    }

private:
    Mutex sendOrder_{LockRank::OneWaySendOrder};
    Mutex mutex_{LockRank::OneWayCredit};
    uint64_t frames_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t bytes_ VEXA_GUARDED_BY(mutex_) = 0;
};

// The receiver's side counts what waits in its queues, and what has left them without the sender having been told.
class OneWayDebt {
public:
    // Tells the sender that `frames` requests with `bytes` of data have left the queue.
    using Acknowledge = std::function<void(uint64_t frames, uint64_t bytes)>;

    explicit OneWayDebt(Acknowledge acknowledge) : acknowledge_(std::move(acknowledge)) {}

    // One request, counted from the arrival of its header until it leaves the queue.
    struct Leave {
        uint64_t bytes;
        void operator()(OneWayDebt* debt) const { debt->Discharge(bytes); }
    };
    using Charge = std::unique_ptr<OneWayDebt, Leave>;

    // Null when the sender has exceeded the bound.
    Charge Arrive(uint64_t bytes)
    {
        MutexLock lock(mutex_);
        if (queuedFrames_ + doneFrames_ >= kMaxQueuedOneWayFrames ||
            queuedBytes_ + doneBytes_ + bytes > kMaxQueuedOneWayBytes) {
            return nullptr;
        }
        ++queuedFrames_;
        queuedBytes_ += bytes;
        return Charge(this, {bytes});
    }

private:
    // Acknowledgements are gathered while there is plenty of room, and never held back when the queue is empty or
    // nearly full.
    void Discharge(uint64_t bytes)
    {
        MutexLock lock(mutex_);
        --queuedFrames_;
        queuedBytes_ -= bytes;
        ++doneFrames_;
        doneBytes_ += bytes;
        if (queuedFrames_ > 0 && doneFrames_ < kGatheredOneWayAcks && doneBytes_ < kMaxQueuedOneWayBytes / 16 &&
            queuedFrames_ + doneFrames_ + kGatheredOneWayAcks < kMaxQueuedOneWayFrames &&
            queuedBytes_ + doneBytes_ < kMaxQueuedOneWayBytes / 2) {
            return;
        }
        const uint64_t frames = std::exchange(doneFrames_, 0);
        const uint64_t allBytes = std::exchange(doneBytes_, 0);
        lock.Unlock();
        acknowledge_(frames, allBytes);
    }

    const Acknowledge acknowledge_;
    Mutex mutex_{LockRank::OneWayDebt};
    uint64_t queuedFrames_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t queuedBytes_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t doneFrames_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t doneBytes_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace VEXA::ipc
