// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/migrate_callback_proxy.h"

#include "log_line.h"

namespace VEXA::UpdateEngine {

BrokerDelegator<MigrateCallBackProxy> MigrateCallBackProxy::delegator_;

MigrateCallBackProxy::MigrateCallBackProxy(const sptr<IRemoteObject>& object) : IRemoteProxy<IMigrateCallBack>(object)
{}

MigrateCallBackProxy::~MigrateCallBackProxy() = default;

int32_t MigrateCallBackProxy::OnMigrateProgress(MessageParcel& data, MessageParcel& reply)
{
    KITS_LOGD("MigrateCallBackProxy::OnMigrateProgress");
    const sptr<IRemoteObject> remote = Remote();
    if (remote == nullptr) {
        KITS_LOGE("remotePtr is nullptr");
        return -1;
    }
    MessageOption option(MessageOption::TF_SYNC);
    return remote->SendRequest(MIGRATE_PROGRESS_CODE, data, reply, option);
}

}  // namespace VEXA::UpdateEngine
