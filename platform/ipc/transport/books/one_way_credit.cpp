// SPDX-License-Identifier: Apache-2.0
#include "one_way_credit.h"

#include "thread.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

// The part of the receiver's window that so many requests take.
uint64_t Cost(uint64_t frames, uint64_t bytes)
{
    return frames * kFrameCost + bytes;
}

}  // namespace

int32_t OneWayCredit::SendOneWay(const void* frame, size_t size, uint64_t bytes)
{
    MutexLock lock(mutex_);
    if (frames_ >= kMaxQueuedOneWayFrames || bytes_ + bytes > kMaxQueuedOneWayBytes) {
        return IPC_QUEUE_FULL;
    }
    if (!SendOrKeep(Cost(1, bytes), frame, size)) {
        return IPC_DEAD_OBJECT;
    }
    ++frames_;
    bytes_ += bytes;
    return IPC_OK;
}

void OneWayCredit::SendBehind(const void* frame, size_t size)
{
    MutexLock lock(mutex_);
    // The destructor of what holds references sends their release.
    RetryForMemory([&]() VEXA_NO_THREAD_SAFETY_ANALYSIS { SendOrKeep(0, frame, size); });
}

bool OneWayCredit::SendOrKeep(uint64_t cost, const void* frame, size_t size)
{
    if (kept_.empty() && sent_ + cost <= window_) {
        sent_ += cost;
        return send_(frame, size);
    }
    const uint8_t* const bytes = static_cast<const uint8_t*>(frame);
    kept_.push_back({cost, {bytes, bytes + size}});
    keptCost_ += cost;
    return Ask();
}

bool OneWayCredit::Ask()
{
    if (hasAsked_ || kept_.empty()) {
        return true;
    }
    hasAsked_ = true;
    const FrameHeader want = MakeHeader(FrameKind::ONE_WAY_WANT, 0, sent_ + keptCost_ - window_);
    return send_(&want, sizeof(want));
}

bool OneWayCredit::GiveBack(uint64_t frames, uint64_t bytes)
{
    MutexLock lock(mutex_);
    const uint64_t cost = Cost(frames, bytes);
    if (frames > frames_ || bytes > bytes_ || cost > sent_) {
        return false;
    }
    frames_ -= frames;
    bytes_ -= bytes;
    sent_ -= cost;
    window_ = std::max(kFirstWindow, window_ - std::min(window_, cost));
    return true;
}

bool OneWayCredit::Widen(uint64_t bytes)
{
    MutexLock lock(mutex_);
    if (!std::exchange(hasAsked_, false)) {
        return false;
    }
    window_ += bytes;
    while (!kept_.empty() && sent_ + kept_.front().cost <= window_) {
        const Kept next = std::move(kept_.front());
        kept_.pop_front();
        keptCost_ -= next.cost;
        sent_ += next.cost;
        send_(next.frame.data(), next.frame.size());
    }
    Ask();
    return true;
}

bool OneWayCredit::IsWhole()
{
    MutexLock lock(mutex_);
    return frames_ == 0 && bytes_ == 0 && sent_ == 0 && kept_.empty() && window_ == kFirstWindow;
}

void OneWayCredit::Drop()
{
    std::list<Kept> dropped;
    MutexLock lock(mutex_);
    dropped.swap(kept_);
    keptCost_ = 0;
}

OneWayDebt::Charge OneWayDebt::Arrive(uint64_t bytes)
{
    MutexLock lock(mutex_);
    const uint64_t frames = queuedFrames_ + doneFrames_ + 1;
    const uint64_t all = queuedBytes_ + doneBytes_ + bytes;
    if (frames > kMaxQueuedOneWayFrames || all > kMaxQueuedOneWayBytes || Cost(frames, all) > Window()) {
        return nullptr;
    }
    ++queuedFrames_;
    queuedBytes_ += bytes;
    return Charge(this, {bytes});
}

bool OneWayDebt::Want(const ByteBudget::Account& sender, uint64_t bytes, std::function<void()> later)
{
    MutexLock lock(mutex_);
    if (asked_ > 0 || bytes == 0 || bytes > Cost(kMaxQueuedOneWayFrames, kMaxQueuedOneWayBytes) - window_.Bytes()) {
        return false;
    }
    const bool hasRoom = wanted_.Set(sender, bytes, std::move(later));
    asked_ = bytes;
    if (hasRoom) {
        WidenLocked();
    }
    return true;
}

void OneWayDebt::WidenLocked()
{
    window_.Absorb(wanted_);
    tell_(FrameKind::ONE_WAY_WINDOW, 0, std::exchange(asked_, 0));
}

void OneWayDebt::Widen()
{
    MutexLock lock(mutex_);
    if (asked_ > 0) {
        WidenLocked();
    }
}

void OneWayDebt::Drop()
{
    MutexLock lock(mutex_);
    asked_ = 0;
    wanted_.Set({}, 0);
    window_.Set({}, 0);
}

// Acknowledgements are gathered while there is plenty of room, and never held back when the queue is empty or nearly
// full.
void OneWayDebt::Discharge(uint64_t bytes)
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
    window_.Set({}, window_.Bytes() - std::min(window_.Bytes(), Cost(doneFrames_, doneBytes_)));
    tell_(FrameKind::ONE_WAY_ACK, std::exchange(doneFrames_, 0), std::exchange(doneBytes_, 0));
}

}  // namespace VEXA::ipc
