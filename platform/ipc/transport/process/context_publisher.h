// SPDX-License-Identifier: Apache-2.0
// Publishes this process's context object in the runtime directory, and keeps it published.
#pragma once

#include <functional>

#include "local_endpoint.h"
#include "runtime_paths.h"
#include "vexa/base/mutex.h"
#include "vexa/ipc/context_object.h"

namespace VEXA::ipc {

// Holds the runtime directory's lock, which one process has, and the context's socket. All operations may be called
// from any thread.
class ContextPublisher {
public:
    // `socket` is the context's.
    explicit ContextPublisher(LocalEndpoint& socket) : socket_(socket) {}

    // Takes the lock and makes the socket, and the directory where it is missing.
    PublishResult Publish(std::function<void()> onReplaced);
    // Does the same again where something has been removed; false while that can't be done. When another process has
    // the lock by then, it calls `onReplaced`.
    bool Renew();
    // Removes all that nobody else uses, because the process leaves.
    void Withdraw();

private:
    PublishResult Provide() VEXA_REQUIRES(mutex_);

    LocalEndpoint& socket_;
    Mutex mutex_{LockRank::ContextPublisher};
    std::function<void()> onReplaced_ VEXA_GUARDED_BY(mutex_);  // empty: nothing is published
    UniqueFd lock_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
