// SPDX-License-Identifier: Apache-2.0
#include "daemon/manager_stub.h"

#include "samgr_log.h"
#include "vexa/ipc/ipc_skeleton.h"
#include "vexa/ipc/message_option.h"
#include "vexa/ipc/message_parcel.h"

namespace VEXA::samgr {

namespace {

// One-way: a caller that does not take its outcome holds up nobody.
int32_t SendOutcome(const sptr<IRemoteObject>& callback, const LoadOutcome& outcome)
{
    MessageParcel data;
    MessageParcel reply;
    MessageOption option(MessageOption::TF_ASYNC);
    return WriteLoadOutcome(outcome, data) ? callback->SendRequest(LoadOutcomeCode(outcome), data, reply, option)
                                           : int32_t{IPC_FAILED};
}

void Report(const sptr<IRemoteObject>& callback, const LoadOutcome& outcome)
{
    int32_t result = SendOutcome(callback, outcome);
    if (result == IPC_FAILED && outcome.object != nullptr) {
        // An object whose process is ending can't be handed over. Without it the caller asks again.
        result = SendOutcome(callback, {outcome.systemAbilityId, SAMGR_OK, nullptr, {}});
    }
    if (result != IPC_OK && result != IPC_DEAD_OBJECT) {
        SAMGR_LOGW("the outcome of a load of service %{public}d was not delivered: %{public}d", outcome.systemAbilityId,
            result);
    }
}

void LogRefusal(const char* operation, int32_t id, const Caller& caller, int32_t result)
{
    if (IPCSkeleton::MayLogCaller()) {
        SAMGR_LOGW("%{public}s of service %{public}d for process %{public}d, user %{public}d, is refused: %{public}s",
            operation, id, caller.pid, static_cast<int>(caller.uid), ResultText(result));
    }
}

}  // namespace

ManagerStub::ManagerStub(const sptr<ServiceTable>& table)
    : IPCObjectStub(ISystemAbilityManager::GetDescriptor()), table_(table)
{}

int32_t ManagerStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option)
{
    if (code < CHECK_SYSTEM_ABILITY || code > LIST_SYSTEM_ABILITIES) {
        return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
    int32_t id = 0;
    if (data.ReadInterfaceToken() != GetObjectDescriptor() || (code != LIST_SYSTEM_ABILITIES && !data.ReadInt32(id))) {
        return SAMGR_BAD_REQUEST;
    }
    const Caller caller{IPCSkeleton::GetCallingPid(), IPCSkeleton::GetCallingUid(), &IPCSkeleton::IsCallerInGroup};
    if (code == LIST_SYSTEM_ABILITIES) {
        return reply.WriteString(table_->List(caller)) ? SAMGR_OK : int32_t{IPC_FAILED};
    }
    int32_t result = SAMGR_OK;
    const char* operation = "removal";
    if (code == CHECK_SYSTEM_ABILITY) {
        operation = "lookup";
        sptr<IRemoteObject> object;
        result = table_->Check(id, caller, object);
        if (result == SAMGR_OK && !reply.WriteRemoteObject(object)) {
            return IPC_FAILED;
        }
    } else if (code == LOAD_SYSTEM_ABILITY) {
        operation = "load";
        result = Load(id, caller, data.ReadRemoteObject());
    } else if (code == ADD_SYSTEM_ABILITY) {
        operation = "registration";
        result = table_->Add(id, caller, data.ReadRemoteObject());
    } else {
        result = table_->Remove(id, caller);
    }
    if (result != SAMGR_OK) {
        LogRefusal(operation, id, caller, result);
    }
    return result;
}

int32_t ManagerStub::Load(int32_t id, const Caller& caller, const sptr<IRemoteObject>& callback)
{
    if (callback == nullptr || !callback->IsProxyObject()) {
        return SAMGR_BAD_REQUEST;
    }
    return table_->Load(id, caller, [callback](const LoadOutcome& outcome) { Report(callback, outcome); });
}

}  // namespace VEXA::samgr
