// SPDX-License-Identifier: Apache-2.0
// This process's own socket in the runtime directory.
#pragma once

#include <atomic>

#include "connection_listener.h"
#include "reactor.h"
#include "vexa/base/mutex.h"
#include "wire.h"

namespace VEXA::ipc {

// Any thread.
class LocalEndpoint {
public:
    LocalEndpoint(EndpointId id, Reactor& reactor, ConnectionCounts& counts, ConnectionListener::Take take)
        : id_(id), reactor_(reactor), counts_(counts), take_(std::move(take))
    {}

    // Watches a socket that listens; null when the reactor can't.
    sptr<EventHandler> Listen(UniqueFd listener);
    // The socket stands in the runtime directory, also where that was made anew since this process started.
    bool Provide() VEXA_EXCLUDES(mutex_);
    // The process leaves.
    void Remove();

    // True when an endpoint that is not there has been removed by its process, which is leaving.
    bool MissingMeansExit() const;

private:
    const EndpointId id_;
    Reactor& reactor_;
    ConnectionCounts& counts_;
    const ConnectionListener::Take take_;
    // A process that was there before the runtime directory was made anew may be about to make its endpoint again.
    std::atomic<bool> isRenewed_{false};
    Mutex mutex_{LockRank::LocalEndpoint};
    sptr<EventHandler> listener_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
