// SPDX-License-Identifier: Apache-2.0
#include "byte_budget.h"

#include <algorithm>

#include "transport/limits.h"

namespace VEXA::ipc {

bool ByteBudget::Charge::Set(const Account& account, uint64_t bytes, std::function<void()> later)
{
    std::function<void()> former;  // may hold last references, which go after the lock
    MutexLock lock(budget_.mutex_);
    std::erase(budget_.waiting_, this);
    former.swap(later_);
    account_ = bytes_ == 0 ? account : account_;
    const bool isLess = bytes < bytes_;
    const bool hasRoom = budget_.Change(*this, bytes);
    if (!hasRoom && later) {
        wanted_ = bytes;
        later_ = std::move(later);
        budget_.waiting_.push_back(this);
    }
    const auto fits = [this](Charge* next)
                          VEXA_NO_THREAD_SAFETY_ANALYSIS { return budget_.Change(*next, next->wanted_); };
    for (auto& waiting = budget_.waiting_; isLess;) {
        const auto next = std::ranges::find_if(waiting, fits);
        if (next == waiting.end()) {
            break;
        }
        std::function<void()> goOn = std::move((*next)->later_);
        waiting.erase(next);
        // The lock is released first, because the pool may run the task at once, on this thread.
        lock.Unlock();
        budget_.workers_.Post(std::move(goOn));
        lock.Lock();
    }
    return hasRoom;
}

void ByteBudget::Charge::Absorb(Charge& other)
{
    MutexLock lock(budget_.mutex_);
    account_ = other.account_;
    bytes_ += std::exchange(other.bytes_, 0);
}

bool ByteBudget::Change(Charge& charge, uint64_t bytes)
{
    if (bytes == charge.bytes_) {
        return true;  // what gives back may have no memory for an entry
    }
    const auto process = ofProcess_.try_emplace(charge.account_.process).first;
    const auto user = ofUser_.try_emplace(charge.account_.user).first;
    const uint64_t more = bytes - charge.bytes_;  // below 0 where it is less
    const bool hasRoom = bytes < charge.bytes_ ||
                         (process->second + more <= kMostBytesOfProcess && user->second + more <= kMostBytesOfUser);
    if (hasRoom) {
        process->second += more;
        user->second += more;
        charge.bytes_ = bytes;
    }
    if (process->second == 0) {
        ofProcess_.erase(process);
    }
    if (user->second == 0) {
        ofUser_.erase(user);
    }
    return hasRoom;
}

}  // namespace VEXA::ipc
