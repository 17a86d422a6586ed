// SPDX-License-Identifier: Apache-2.0
// The agreement between the library and the migration service: the service's number, the interface descriptors, and the
// codes and fields of requests. Both sides include this header.
#pragma once

#include <cstdint>

namespace VEXA::UpdateEngine {

// The migration service's number at the system-ability manager.
inline constexpr int32_t MIGRATE_SERVICE_ID = 65792;

inline constexpr char16_t MIGRATE_SERVER_DESCRIPTOR[] = u"VEXA.Updater.IMigrateServer";
inline constexpr char16_t MIGRATE_CALLBACK_DESCRIPTOR[] = u"VEXA.UpdateEngine.IMigrateCallBack";
inline constexpr char16_t SET_BACKUP_FILE_OWN_DESCRIPTOR[] = u"VEXA.UpdateEngine.ISetBackupFileOwnInterface";
inline constexpr char16_t RESERVE_STATUS_OBSERVER_DESCRIPTOR[] = u"VEXA.Updater.IMigrateVirtStatusObserver";

// Requests to the migration service. Behind the token come the request's fields; "->" gives the reply's fields. Texts
// are strings; an error is the JSON text of a BusinessError.
enum class MigrateRequestCode : uint32_t {
    GET_MIGRATE_STATUS = 1,              // uint32 stage -> MigrateStatus, error
    GET_MIGRATE_INFO = 2,                // uint32 stage -> MigrateInfo, error
    GET_PAK_MIGRATE_INFO = 3,            // -> list of PakMigrateInfo, error
    GET_APK_INFO = 4,                    // -> list of strings, error
    START_MIGRATE = 5,                   // -> error
    START_PAK_MIGRATE = 6,               // text -> error
    REMOVE_MIGRATE = 7,                  // int32 -> error
    REMOVE_PAK_MIGRATE = 8,              // text -> error
    REGISTER_PROGRESS_CALLBACK = 9,      // remote object of IMigrateCallBack ->
    UNREGISTER_PROGRESS_CALLBACK = 10,   // ->
    SET_MIGRATE_POLICY = 11,             // int32 -> error
    CHECK_APP_RESTORE = 12,              // text -> text, error
    PRESET_DATA = 13,                    // text -> error
    GET_MIGRATE_RESULT = 14,             // -> text, error
    GET_MIGRATION_USERS = 15,            // -> list of MigrationUser, error
    GET_MODULE_MIGRATION_POLICY = 16,    // bool, list of ModuleInfo -> list of ModuleMigrationPolicy, error
    RESUME_MIGRATION = 17,               // -> error
    GET_RESTORE_APP_INFOS = 18,          // text, int32 -> text
    RESTORE_APP = 19,                    // text, text -> text
    REGISTER_RESERVE_OBSERVER = 20,      // caller, remote object of IReserveMigrateStatusObserver -> text
    UNREGISTER_RESERVE_OBSERVER = 21,    // caller -> text
    CLEAR_APP = 22,                      // text, text -> text
    CLEAR_ALL_VIRTUAL_DATA = 23,         // text -> text
    GET_RESTORE_APP_STATUS = 24,         // text, text -> text
    NOTIFY_EMPORION_CORE_EVENT = 25,     // parcelable Want -> error
    START_PAK_MIGRATION = 26,            // text, text, text -> error
    GET_PAK_MIGRATION_TASK_STATUS = 27,  // text -> ReserveMigrationStatus, error
    GET_MIGRATION_DATA_SIZE = 28,        // -> int64, error
    ADJUST_APP_PRIORITY = 29,            // text, text -> text
    SET_BACKUP_FILE_OWN = 31,            // remote object of ISetBackupFileOwnInterface ->
};

// A progress event: uint32 stage, JSON text of an EventInfo.
inline constexpr uint32_t MIGRATE_PROGRESS_CODE = 1;
// The end of a change of ownership, one-way: int32 error code.
inline constexpr uint32_t SET_BACKUP_FILE_OWN_FINISHED_CODE = 1;
// A reserve status: JSON text of a list of RestoreEventInfo.
inline constexpr uint32_t RESERVE_STATUS_CODE = 0;

inline constexpr int32_t MIGRATE_SUCCESS = 0;
// The service can't be reached, or the request can't be written, sent or answered in time. Also what stubs answer to a
// wrong token.
inline constexpr int32_t MIGRATE_UNREACHABLE = 104;
// A service answers a request with its own result plus this offset, so that the result differs from the transport's.
inline constexpr int32_t MIGRATE_RESULT_OFFSET = 2000;
// A stub's answer to a request that does not fit its interface.
inline constexpr int32_t CALLBACK_BAD_REQUEST = 100;
// The backup-file stub's answer to a code that it does not know.
inline constexpr int32_t CALLBACK_UNKNOWN_CODE = 801;

}  // namespace VEXA::UpdateEngine
