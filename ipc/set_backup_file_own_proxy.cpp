// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/set_backup_file_own_proxy.h"

#include "log_line.h"

namespace VEXA::UpdateEngine {

BrokerDelegator<SetBackupFileOwnProxy> SetBackupFileOwnProxy::delegator_;

SetBackupFileOwnProxy::SetBackupFileOwnProxy(const sptr<IRemoteObject>& object)
    : IRemoteProxy<ISetBackupFileOwnInterface>(object)
{}

SetBackupFileOwnProxy::~SetBackupFileOwnProxy() = default;

void SetBackupFileOwnProxy::OnSetBackupFileOwnFinished(int32_t errorCode)
{
    const sptr<IRemoteObject> remote = Remote();
    if (remote == nullptr) {
        KITS_LOGE("SetBackupFileOwnProxy, remoteObject is nullptr");
        return;
    }
    MessageParcel data;
    if (!data.WriteInterfaceToken(GetDescriptor())) {
        KITS_LOGE("SetBackupFileOwnProxy, WriteInterfaceToken fail");
        return;
    }
    data.WriteInt32(errorCode);
    MessageParcel reply;
    MessageOption option(MessageOption::TF_ASYNC);
    const int32_t result = remote->SendRequest(SET_BACKUP_FILE_OWN_FINISHED_CODE, data, reply, option);
    KITS_LOGI("SetBackupFileOwnProxy, OnSetBackupFileOwnFinished ret=%{public}d", result);
}

}  // namespace VEXA::UpdateEngine
