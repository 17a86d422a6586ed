// SPDX-License-Identifier: Apache-2.0
// Asks a service that samgr_peer serves.
#pragma once

#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::test {

// The process of the object.
inline pid_t PidOf(const sptr<IRemoteObject>& object)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    return object != nullptr && object->SendRequest(1, data, reply, option) == 0 ? reply.ReadInt32() : -1;
}

}  // namespace VEXA::test
