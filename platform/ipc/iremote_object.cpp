// SPDX-License-Identifier: Apache-2.0
#include "vexa/ipc/iremote_object.h"

#include <utility>

#include "vexa/ipc/iremote_broker.h"

namespace VEXA {

IRemoteObject::IRemoteObject(std::u16string descriptor) : descriptor_(std::move(descriptor)) {}
IRemoteObject::~IRemoteObject() = default;

sptr<IRemoteBroker> IRemoteObject::AsInterface()
{
    return nullptr;
}

}  // namespace VEXA
