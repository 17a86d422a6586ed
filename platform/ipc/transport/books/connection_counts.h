// SPDX-License-Identifier: Apache-2.0
// Counts the connections that each process and each user has with this process, and all of them together.
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
        Credentials who;
        void operator()(ConnectionCounts* counts) const { counts->Free(who); }
    };
    using Slot = std::unique_ptr<ConnectionCounts, Uncount>;

    // `descriptors` tells how many this process may have now; `onFew` is to make other processes do with fewer.
    explicit ConnectionCounts(
        std::function<size_t()> descriptors, std::function<void()> onFew = [] {})
        : descriptors_(std::move(descriptors)), onFew_(std::move(onFew))
    {}

    // Counts one more; null when it would be one too many of the process, of its user, or of all.
    Slot Take(const Credentials& who);
    // Calls `onFew` when few were left for whom the last ones were taken, at most once in a kTickPeriod.
    void AskWhereFew(Deadline now);

private:
    void Free(const Credentials& who);

    const std::function<size_t()> descriptors_;
    const std::function<void()> onFew_;
    Mutex mutex_{LockRank::ConnectionCounts};
    bool areFew_ VEXA_GUARDED_BY(mutex_) = false;
    Deadline askedAt_ VEXA_GUARDED_BY(mutex_){};
    size_t all_ VEXA_GUARDED_BY(mutex_) = 0;
    std::unordered_map<pid_t, size_t> ofProcess_ VEXA_GUARDED_BY(mutex_);
    std::unordered_map<uid_t, size_t> ofUser_ VEXA_GUARDED_BY(mutex_);
};

// A connected socket, who is at its other end, and its place among the connections that are counted.
struct Connection {
    UniqueFd fd;
    Credentials who;
    ConnectionCounts::Slot slot;
};
// Takes a connection from its owner. Never throws.
using GiveUpConnection = std::function<Connection()>;

}  // namespace VEXA::ipc
