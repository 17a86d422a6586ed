// SPDX-License-Identifier: Apache-2.0
#include "connection_counts.h"

#include <algorithm>

#include "peer_log.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

size_t Share(size_t all, size_t percent)
{
    return all / 100 * percent + all % 100 * percent / 100;
}

}  // namespace

ConnectionCounts::Slot ConnectionCounts::Take(const Credentials& who)
{
    const size_t all = Share(descriptors_(), kConnectionShare);
    const size_t user = std::min(kMaxConnectionsPerUser, Share(descriptors_(), kUserShare));
    const size_t process = std::max(std::min<size_t>(user, 1), Share(user, kProcessShare));
    MutexLock lock(mutex_);
    const std::pair<size_t*, size_t> counts[] = {
        {&all_, all}, {&ofUser_[who.uid], user}, {&ofProcess_[who.pid], process}};
    bool isFull = false;
    for (const auto& [count, most] : counts) {
        isFull = isFull || *count >= most;
        areFew_ = areFew_ || *count >= Share(most, kFewFrom);
        ++*count;
    }
    Slot slot(this, {who});
    if (isFull) {
        IPC_LOGE_OF(&who,
            "too many connections (%{public}zu of user %{public}u, %{public}zu of process %{public}d): new "
            "ones are refused",
            *counts[1].first - 1, who.uid, *counts[2].first - 1, who.pid);
        lock.Unlock();
        slot.reset();
    }
    return slot;
}

void ConnectionCounts::AskWhereFew(Deadline now)
{
    MutexLock lock(mutex_);
    if (areFew_ && now >= askedAt_ + kTickPeriod) {
        areFew_ = false;
        askedAt_ = now;
        lock.Unlock();
        onFew_();
    }
}

void ConnectionCounts::Free(const Credentials& who)
{
    MutexLock lock(mutex_);
    const auto lower = [](auto& counts, auto key) {
        const auto found = counts.find(key);
        if (--found->second == 0) {
            counts.erase(found);
        }
    };
    lower(ofProcess_, who.pid);
    lower(ofUser_, who.uid);
    --all_;
}

}  // namespace VEXA::ipc
