// SPDX-License-Identifier: Apache-2.0
// Log lines that another process can cause, as often as it likes.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>

#include "credentials.h"
#include "ipc_log.h"
#include "vexa/base/mutex.h"

namespace VEXA::ipc {

// Bounds the lines about one process and about one user in a second, and tells afterwards how many were left out.
class PeerLines {
public:
    // True when a line about the process may be written.
    bool Take(const Credentials& peer, std::chrono::steady_clock::time_point now);

private:
    struct Lines {
        uint32_t written = 0;
        uint32_t leftOut = 0;
    };
    Mutex mutex_{LockRank::PeerLines};
    std::chrono::steady_clock::time_point second_ VEXA_GUARDED_BY(mutex_){};
    std::map<pid_t, Lines> ofProcess_ VEXA_GUARDED_BY(mutex_);
    std::map<uid_t, Lines> ofUser_ VEXA_GUARDED_BY(mutex_);
};

// Asks the one of this program; null stands for this process itself, about which every line is written.
// False where memory is short: a line must not keep its writer from what it does next.
bool MayLogOf(const Credentials* peer) noexcept;

}  // namespace VEXA::ipc

// IPC_LOGE and IPC_LOGW for a line that the process with these credentials has caused.
#define IPC_LOGE_OF(peer, ...) (::VEXA::ipc::MayLogOf(peer) ? IPC_LOGE(__VA_ARGS__) : void())
#define IPC_LOGW_OF(peer, ...) (::VEXA::ipc::MayLogOf(peer) ? IPC_LOGW(__VA_ARGS__) : void())
