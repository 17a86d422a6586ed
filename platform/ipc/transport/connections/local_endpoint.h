// SPDX-License-Identifier: Apache-2.0
// This process's own socket in the runtime directory.
#pragma once

#include "connection_listener.h"
#include "reactor.h"
#include "vexa/base/mutex.h"
#include "wire.h"

namespace VEXA::ipc {

// All operations may be called from any thread.
class LocalEndpoint {
public:
    LocalEndpoint(EndpointId id, Reactor& reactor, ConnectionCounts& counts, ConnectionListener::Take take)
        : id_(id), reactor_(reactor), counts_(counts), take_(std::move(take))
    {}

    // Has the reactor watch a socket that listens, and returns its handler; null when that can't be done.
    sptr<EventHandler> Listen(UniqueFd listener);
    // Makes the socket unless it stands in the runtime directory, which may have been made anew since this process
    // started. False when that can't be done.
    bool Provide() VEXA_EXCLUDES(mutex_);
    // Removes the socket, because the process leaves.
    void Remove() const;

private:
    const EndpointId id_;
    Reactor& reactor_;
    ConnectionCounts& counts_;
    const ConnectionListener::Take take_;
    Mutex mutex_{LockRank::LocalEndpoint};
    sptr<EventHandler> listener_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
