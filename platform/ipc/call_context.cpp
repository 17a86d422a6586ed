// SPDX-License-Identifier: Apache-2.0
#include "call_context.h"

#include "foreign_code.h"
#include "parcel_access.h"

namespace VEXA::ipc {
namespace {

thread_local const Credentials* currentCaller = nullptr;

class CallerScope {
public:
    explicit CallerScope(const Credentials& caller) : outer_(currentCaller) { currentCaller = &caller; }
    ~CallerScope() { currentCaller = outer_; }
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

private:
    const Credentials* const outer_;
};

}  // namespace

const Credentials* CurrentCaller()
{
    return currentCaller;
}

int32_t CarryOut(IRemoteObject& object, uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option,
    const Credentials& caller)
{
    const CallerScope scope(caller);
    int32_t result = IPC_OK;
    if (RunForeign("a request's handler", [&] { result = object.SendRequest(code, data, reply, option); })) {
        return result;
    }
    ParcelAccess::Clear(reply);
    return IPC_HANDLER_THREW;
}

}  // namespace VEXA::ipc
