// SPDX-License-Identifier: Apache-2.0
// A socket of this process in the runtime directory: its endpoint, or the context's, which the publisher has too.
#pragma once

#include <string>

#include "connection_listener.h"
#include "reactor.h"
#include "runtime_paths.h"
#include "vexa/base/mutex.h"

namespace VEXA::ipc {

// All operations may be called from any thread.
class LocalEndpoint {
public:
    LocalEndpoint(std::string path, Reactor& reactor, ConnectionCounts& counts, ConnectionListener::Take take)
        : path_(std::move(path)), reactor_(reactor), counts_(counts), take_(std::move(take))
    {}

    // Makes the socket unless it stands in the runtime directory, from where it may have been removed. False, with
    // errno, when that can't be done or the process leaves.
    bool Provide();
    // Removes the socket, because the process leaves.
    void Remove();

private:
    const std::string path_;
    Reactor& reactor_;
    ConnectionCounts& counts_;
    const ConnectionListener::Take take_;
    Mutex mutex_{LockRank::LocalEndpoint};
    sptr<EventHandler> listener_ VEXA_GUARDED_BY(mutex_);
    FileId file_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace VEXA::ipc
