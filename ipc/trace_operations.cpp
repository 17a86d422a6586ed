// SPDX-License-Identifier: Apache-2.0
// Names the library's operations in a trace.
#include "native_migrate/migrate_protocol.h"
#include "vexa/ipc/trace_operation.h"

namespace VEXA::UpdateEngine {

#define SERVER_OPERATION(code, number, fields) {MIGRATE_SERVER_DESCRIPTOR, number, #code, fields},
static const TraceOperation kOperations[] = {
    MIGRATE_REQUESTS(SERVER_OPERATION)  //
    {MIGRATE_CALLBACK_DESCRIPTOR, MIGRATE_PROGRESS_CODE, "OnMigrateProgress", "uint32 stage, EventInfo event"},
    {SET_BACKUP_FILE_OWN_DESCRIPTOR, SET_BACKUP_FILE_OWN_FINISHED_CODE, "OnSetBackupFileOwnFinished", "int32 error"},
    {RESERVE_STATUS_OBSERVER_DESCRIPTOR, RESERVE_STATUS_CODE, "OnRestoreStatusChanged", "RestoreEventInfo[] events"},
};

}  // namespace VEXA::UpdateEngine
