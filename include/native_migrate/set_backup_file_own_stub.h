// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "native_migrate/iset_backup_file_own_interface.h"
#include "vexa/ipc/iremote_stub.h"

namespace VEXA::UpdateEngine {

// The receiving end. A client derives from it, implements OnSetBackupFileOwnFinished and passes an object of its class
// to MigrateServerKits::SetBackupFileOwn. The implementation runs on a thread of the process's IPC pool, once for each
// notice, and may be called for a notice with a wrong interface token too: then with 100. The service does not wait
// for it.
class NATIVE_MIGRATE_EXPORT SetBackupFileOwnStub : public IRemoteStub<ISetBackupFileOwnInterface> {
public:
    SetBackupFileOwnStub();
    ~SetBackupFileOwnStub() override;

    // Called by the IPC runtime. 0: delivered. 100: wrong interface token. 801: unknown code.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
};

}  // namespace VEXA::UpdateEngine
