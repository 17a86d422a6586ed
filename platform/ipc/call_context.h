// SPDX-License-Identifier: Apache-2.0
// Carries out one incoming request on an object.
#pragma once

#include "credentials.h"
#include "vexa/ipc/iremote_object.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::ipc {

// Calls the object on behalf of a process, which the thread's calls of IPCSkeleton name meanwhile. An exception that
// leaves the object's code is logged and answered with IPC_HANDLER_THREW. `number`: that the process has given the
// request.
int32_t CarryOut(IRemoteObject& object, uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option,
    const Caller& caller, uint64_t number = 0);

// Returns the process on whose behalf this thread is calling an object; null outside a request.
const Caller* CurrentCaller();

}  // namespace VEXA::ipc
