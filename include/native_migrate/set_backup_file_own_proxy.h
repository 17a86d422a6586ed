// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "native_migrate/iset_backup_file_own_interface.h"
#include "vexa/ipc/iremote_proxy.h"

namespace VEXA::UpdateEngine {

// The sending end. May be used from any thread.
class NATIVE_MIGRATE_EXPORT SetBackupFileOwnProxy : public IRemoteProxy<ISetBackupFileOwnInterface> {
public:
    explicit SetBackupFileOwnProxy(const sptr<IRemoteObject>& object);
    ~SetBackupFileOwnProxy() override;

    // Queues a one-way notice and returns at once. What became of it is only in the log.
    void OnSetBackupFileOwnFinished(int32_t errorCode) override;

private:
    static BrokerDelegator<SetBackupFileOwnProxy> delegator_;
};

}  // namespace VEXA::UpdateEngine
