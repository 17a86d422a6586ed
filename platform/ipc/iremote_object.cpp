// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/iremote_object.h"

#include <utility>

#include "ipc_log.h"
#include "vexa/ipc/iremote_broker.h"

namespace VEXA {

IRemoteObject::IRemoteObject(std::u16string descriptor) : descriptor_(std::move(descriptor))
{
    NoteLeaving();
}

IRemoteObject::~IRemoteObject()
{
    if (GetSptrRefCount() > 0 && !IsLeaving()) {
        IPC_LOGE("an object of interface \"%{public}s\" is deleted while %{public}d references to it are held",
            std::string(descriptor_.begin(), descriptor_.end()).c_str(), GetSptrRefCount());
    }
}

sptr<IRemoteBroker> IRemoteObject::AsInterface()
{
    return nullptr;
}

}  // namespace VEXA
