// SPDX-License-Identifier: Apache-2.0
#include "native_migrate/set_backup_file_own_stub.h"

#include "log_line.h"

namespace VEXA::UpdateEngine {

SetBackupFileOwnStub::SetBackupFileOwnStub() = default;

SetBackupFileOwnStub::~SetBackupFileOwnStub() = default;

int32_t SetBackupFileOwnStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel&, MessageOption&)
{
    KITS_LOGI("SetBackupFileOwnStub func code %{public}u", code);
    const bool isFinished = code == SET_BACKUP_FILE_OWN_FINISHED_CODE;
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        KITS_LOGE("SetBackupFileOwnStub, ReadInterfaceToken fail");
        // The client waits for the notice, so a notice with a wrong token ends its wait too.
        if (isFinished) {
            OnSetBackupFileOwnFinished(CALLBACK_BAD_REQUEST);
        }
        return CALLBACK_BAD_REQUEST;
    }
    if (!isFinished) {
        return CALLBACK_UNKNOWN_CODE;
    }
    const int32_t errorCode = data.ReadInt32();
    KITS_LOGE("SetBackupFileOwnStub, OnSetBackupFileOwnFinished errorCode = %{public}d", errorCode);
    OnSetBackupFileOwnFinished(errorCode);
    return MIGRATE_SUCCESS;
}

}  // namespace VEXA::UpdateEngine
