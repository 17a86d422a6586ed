// SPDX-License-Identifier: Apache-2.0
#include "connection_counts.h"

#include <algorithm>

#include "ipc_log.h"
#include "transport/limits.h"

namespace VEXA::ipc {
namespace {

size_t Share(size_t all, size_t percent)
{
    return all / 100 * percent + all % 100 * percent / 100;
}

}  // namespace

ConnectionCounts::Slot ConnectionCounts::Take(uid_t user)
{
    const size_t descriptors = descriptors_();
    MutexLock lock(mutex_);
    const auto found = of_.find(user);
    const size_t own = found != of_.end() ? found->second : 0;
    if (own >= std::min(kMaxConnectionsPerUser, Share(descriptors, kUserShare)) ||
        all_ >= Share(descriptors, kConnectionShare)) {
        if (!std::exchange(isRefusing_, true)) {
            IPC_LOGE("too many connections (%{public}zu of user %{public}u): new ones are refused", own, user);
        }
        return nullptr;
    }
    of_[user] = own + 1;
    ++all_;
    isRefusing_ = false;
    return Slot(this, {user});
}

void ConnectionCounts::Free(uid_t user)
{
    MutexLock lock(mutex_);
    const auto found = of_.find(user);
    if (--found->second == 0) {
        of_.erase(found);
    }
    --all_;
}

}  // namespace VEXA::ipc
