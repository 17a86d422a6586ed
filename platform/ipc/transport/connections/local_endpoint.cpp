// SPDX-License-Identifier: Apache-2.0
#include "local_endpoint.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "process_life.h"

namespace VEXA::ipc {

bool LocalEndpoint::Provide()
{
    MutexLock lock(mutex_);
    if (file_.Exists() && IdOf(path_).IsSameFile(file_)) {
        return true;
    }
    if (ProcessLife::Exiting()) {
        errno = ESHUTDOWN;
        return false;
    }
    UniqueFd socket = ListenAt(path_);
    if (!socket) {
        return false;
    }
    const sptr<EventHandler> fresh(new ConnectionListener(std::move(socket), reactor_, counts_, take_));
    if (!reactor_.Add(fresh)) {
        return false;
    }
    if (listener_ != nullptr) {
        reactor_.Remove(listener_->Fd());
    }
    listener_ = fresh;
    file_ = IdOf(path_);
    return true;
}

void LocalEndpoint::Remove()
{
    MutexLock lock(mutex_);
    if (IdOf(path_).IsSameFile(file_)) {
        unlink(path_.c_str());
    }
}

}  // namespace VEXA::ipc
