// SPDX-License-Identifier: Apache-2.0
#include "call_context.h"

#include <exception>

#include "ipc_log.h"
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
    try {
        return object.SendRequest(code, data, reply, option);
    } catch (const std::exception& error) {
        IPC_LOGE("request %{public}u ended by an exception: %{public}s", code, error.what());
    } catch (...) {
        IPC_LOGE("request %{public}u ended by an exception", code);
    }
    ParcelAccess::Clear(reply);
    return IPC_HANDLER_THREW;
}

}  // namespace VEXA::ipc
