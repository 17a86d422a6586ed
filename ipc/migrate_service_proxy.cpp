// SPDX-License-Identifier: Apache-2.0
#include "migrate_service_proxy.h"

#include "log_line.h"

namespace VEXA::UpdateEngine {

BrokerDelegator<MigrateServiceProxy> MigrateServiceProxy::delegator_;

namespace {

int32_t ServiceResult(int32_t transportResult)
{
    return transportResult >= MIGRATE_RESULT_OFFSET ? transportResult - MIGRATE_RESULT_OFFSET : MIGRATE_UNREACHABLE;
}

}  // namespace

int32_t MigrateServiceProxy::SendRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply)
{
    KITS_LOGI("MigrateServiceProxy::SendRemoteRequest");
    const sptr<IRemoteObject> remote = Remote();
    if (remote == nullptr) {
        KITS_LOGE("Can not get remote");
        return MIGRATE_UNREACHABLE;
    }
    MessageOption option(MessageOption::TF_SYNC);
    const int32_t transportResult = remote->SendRequest(code, data, reply, option);
    KITS_LOGI("%{public}s is %{public}d", "MigrateServiceProxy::GetResult", transportResult);
    const int32_t result = transportResult == IPC_OK ? MIGRATE_SUCCESS : ServiceResult(transportResult);
    if (result != MIGRATE_SUCCESS) {
        KITS_LOGE("Transact error");
    }
    return result;
}

}  // namespace VEXA::UpdateEngine
