// SPDX-License-Identifier: Apache-2.0
// Asks a service that samgr_peer serves.
#pragma once

#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::test {

// The process of the object, or of a service that it loads.
inline pid_t PidOf(const sptr<IRemoteObject>& object, int32_t loaded = 0)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    data.WriteInt32(loaded);
    return object != nullptr && object->SendRequest(1, data, reply, option) == 0 ? reply.ReadInt32() : -1;
}

}  // namespace VEXA::test
