// SPDX-License-Identifier: Apache-2.0
// The bounds on one-way requests that are under way from one process to another: kept by the sender, checked by the
// receiver. The sender has a bound of its own for all that it has not been told to be done. Of that it sends as much as
// the receiver's window takes. The window is small at first, and costs nothing. The sender asks for more, which the
// receiver charges to the sender's process. What has been done makes the window smaller again, on both sides alike.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <utility>
#include <vector>

#include "byte_budget.h"
#include "vexa/base/mutex.h"
#include "wire.h"

namespace VEXA::ipc {

// Sends frames in order, and keeps those for which the window has no room. All operations may be called from any
// thread.
class OneWayCredit {
public:
    // Sends a frame; false when the receiver is dead.
    using Send = std::function<bool(const void* frame, size_t size)>;

    explicit OneWayCredit(Send send) : send_(std::move(send)) {}

    // Sends or keeps a whole frame of a one-way request with so many bytes of data. Returns 0 or an IpcError.
    int32_t SendOneWay(const void* frame, size_t size, uint64_t bytes);
    // Does the same with another frame that must not overtake the requests.
    void SendBehind(const void* frame, size_t size);
    // Deal with an acknowledgement, and with more room that was asked for; false when they are not due.
    bool GiveBack(uint64_t frames, uint64_t bytes);
    bool Widen(uint64_t bytes);
    // True when all is done, and the window is as at first.
    bool IsWhole();
    // Drops what is kept, as the receiver has died.
    void Drop();

private:
    struct Kept {
        uint64_t cost;
        std::vector<uint8_t> frame;
    };
    bool SendOrKeep(uint64_t cost, const void* frame, size_t size) VEXA_REQUIRES(mutex_);
    bool Ask() VEXA_REQUIRES(mutex_);

    const Send send_;
    Mutex mutex_{LockRank::OneWayCredit};  // held while sending, so that frames leave in order
    uint64_t frames_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t bytes_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t window_ VEXA_GUARDED_BY(mutex_) = kFirstWindow;
    uint64_t sent_ VEXA_GUARDED_BY(mutex_) = 0;  // what it takes of the window
    std::list<Kept> kept_ VEXA_GUARDED_BY(mutex_);
    uint64_t keptCost_ VEXA_GUARDED_BY(mutex_) = 0;
    bool hasAsked_ VEXA_GUARDED_BY(mutex_) = false;
};

// Counts what waits in the receiver's queues, and what has left them without the sender having been told.
class OneWayDebt {
public:
    // Tells the sender something: a ONE_WAY_ACK or a ONE_WAY_WINDOW.
    using Tell = std::function<void(FrameKind kind, uint64_t target, uint64_t extra)>;

    OneWayDebt(ByteBudget& budget, Tell tell) : tell_(std::move(tell)), window_(budget), wanted_(budget) {}

    // One request, counted from the arrival of its header until it is done.
    struct Leave {
        uint64_t bytes;
        void operator()(OneWayDebt* debt) const { debt->Discharge(bytes); }
    };
    using Charge = std::unique_ptr<OneWayDebt, Leave>;

    // Null when the sender has exceeded a bound.
    Charge Arrive(uint64_t bytes);
    // Widens the window by so much, and tells; where there is no room, `later` runs when there is, and is to call
    // Widen. False when the sender may not ask for that. Throws std::bad_alloc before anything has changed.
    bool Want(const ByteBudget::Account& sender, uint64_t bytes, std::function<void()> later);
    void Widen();
    // Gives back what the window costs, as the sender has died.
    void Drop();

private:
    void Discharge(uint64_t bytes);
    void WidenLocked() VEXA_REQUIRES(mutex_);
    uint64_t Window() const VEXA_REQUIRES(mutex_) { return kFirstWindow + window_.Bytes(); }

    const Tell tell_;
    Mutex mutex_{LockRank::OneWayDebt};  // held while telling, so that the sender hears of things in order
    uint64_t queuedFrames_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t queuedBytes_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t doneFrames_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t doneBytes_ VEXA_GUARDED_BY(mutex_) = 0;
    uint64_t asked_ VEXA_GUARDED_BY(mutex_) = 0;
    ByteBudget::Charge window_ VEXA_GUARDED_BY(mutex_);  // beyond the first
    ByteBudget::Charge wanted_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
