// SPDX-License-Identifier: Apache-2.0
#include "local_endpoint.h"

#include <unistd.h>

#include <utility>

#include "process_life.h"
#include "runtime_paths.h"

namespace VEXA::ipc {

sptr<EventHandler> LocalEndpoint::Listen(UniqueFd listener)
{
    const sptr<EventHandler> handler(new ConnectionListener(std::move(listener), reactor_, counts_, take_));
    return reactor_.Add(handler) ? handler : nullptr;
}

bool LocalEndpoint::Provide()
{
    MutexLock lock(mutex_);
    if (listener_ != nullptr && access(EndpointPath(id_).c_str(), F_OK) == 0) {
        return true;
    }
    UniqueFd socket = ListenAt(EndpointPath(id_));
    const sptr<EventHandler> fresh = socket ? Listen(std::move(socket)) : nullptr;
    if (fresh == nullptr) {
        return false;
    }
    // The exit handler may have run before the socket was made.
    if (ProcessLife::Exiting()) {
        Remove();
    }
    if (listener_ != nullptr) {
        reactor_.Remove(listener_->Fd());
    }
    listener_ = fresh;
    return true;
}

void LocalEndpoint::Remove() const
{
    unlink(EndpointPath(id_).c_str());
}

}  // namespace VEXA::ipc
