// SPDX-License-Identifier: Apache-2.0
#include "call_context.h"

#include <utility>

#include "foreign_code.h"
#include "parcel_access.h"
#include "trace.h"

namespace VEXA::ipc {
namespace {

thread_local const Caller* t_caller = nullptr;

}  // namespace

const Caller* CurrentCaller()
{
    return t_caller;
}

int32_t CarryOut(IRemoteObject& object, uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option,
    const Caller& caller, uint64_t number)
{
    RequestTrace trace({false, false, caller.pid, number}, code, option.IsOneWay(), data);
    const Caller* const outer = std::exchange(t_caller, &caller);
    int32_t result = IPC_OK;
    if (!RunForeign("a request's handler", [&] { result = object.SendRequest(code, data, reply, option); })) {
        ParcelAccess::Clear(reply);
        result = IPC_HANDLER_THREW;
    }
    t_caller = outer;
    return trace.End(result, reply);
}

}  // namespace VEXA::ipc
