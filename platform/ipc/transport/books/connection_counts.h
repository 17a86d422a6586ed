// SPDX-License-Identifier: Apache-2.0
// Counts the connections that each user has with this process, and those of all users together.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>

#include "socket.h"
#include "vexa/base/mutex.h"

namespace VEXA::ipc {

// Outlives its slots. All operations may be called from any thread.
class ConnectionCounts {
public:
    // Stands for one counted connection: it travels with the connection's descriptor, and its end is uncounted.
    struct Uncount {
        uid_t user;
        void operator()(ConnectionCounts* counts) const { counts->Free(user); }
    };
    using Slot = std::unique_ptr<ConnectionCounts, Uncount>;

    // `descriptors` tells how many this process may have now.
    explicit ConnectionCounts(std::function<size_t()> descriptors) : descriptors_(std::move(descriptors)) {}

    // Counts one more; null when it would be one too many of the user, or of all.
    Slot Take(uid_t user);

private:
    void Free(uid_t user);

    const std::function<size_t()> descriptors_;
    Mutex mutex_{LockRank::ConnectionCounts};
    size_t all_ VEXA_GUARDED_BY(mutex_) = 0;
    bool isRefusing_ VEXA_GUARDED_BY(mutex_) = false;  // since the last log line of it; a success ends that
    std::unordered_map<uid_t, size_t> of_ VEXA_GUARDED_BY(mutex_);
};

// A connected socket, who is at its other end, and its place among the connections that are counted.
struct Connection {
    UniqueFd fd;
    Credentials who;
    ConnectionCounts::Slot slot;
};

}  // namespace VEXA::ipc
