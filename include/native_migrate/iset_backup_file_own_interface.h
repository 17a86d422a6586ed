// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "native_migrate/export.h"
#include "native_migrate/migrate_protocol.h"
#include "vexa/ipc/iremote_broker.h"

namespace VEXA::UpdateEngine {

// How the migration service reports that it has changed the ownership of backup files.
class NATIVE_MIGRATE_EXPORT ISetBackupFileOwnInterface : public IRemoteBroker {
public:
    DECLARE_INTERFACE_DESCRIPTOR(SET_BACKUP_FILE_OWN_DESCRIPTOR)

    // `errorCode`: the service's own code, 0 for success.
    virtual void OnSetBackupFileOwnFinished(int32_t errorCode) = 0;
};

}  // namespace VEXA::UpdateEngine
