// SPDX-License-Identifier: Apache-2.0
#include "peer_log.h"

#include <new>

#include "transport/limits.h"

namespace VEXA::ipc {

bool PeerLines::Take(const Credentials& peer, std::chrono::steady_clock::time_point now)
{
    MutexLock lock(mutex_);
    if (now - second_ >= std::chrono::seconds(1)) {
        second_ = now;
        for (const auto& [process, lines] : ofProcess_) {
            if (lines.leftOut > 0) {
                IPC_LOGW("%{public}u more lines about process %{public}d were left out", lines.leftOut, process);
            }
        }
        for (const auto& [user, lines] : ofUser_) {
            if (lines.leftOut > 0) {
                IPC_LOGW("%{public}u more lines about user %{public}u were left out", lines.leftOut, user);
            }
        }
        ofProcess_.clear();
        ofUser_.clear();
    }
    Lines& process = ofProcess_[peer.pid];
    Lines& user = ofUser_[peer.uid];
    if (process.written == kMostLinesOfProcess || user.written == kMostLinesOfUser) {
        ++(process.written == kMostLinesOfProcess ? process : user).leftOut;
        return false;
    }
    ++process.written;
    ++user.written;
    return true;
}

bool MayLogOf(const Credentials* peer) noexcept
{
    try {
        static auto& lines = *new PeerLines;
        return peer == nullptr || lines.Take(*peer, std::chrono::steady_clock::now());
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace VEXA::ipc
