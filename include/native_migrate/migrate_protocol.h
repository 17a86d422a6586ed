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

// REQUEST(code, number, fields): the requests to the migration service. Behind the token come the request's fields,
// type and name each; "->" gives the reply's. Records, and lists of them, are JSON texts. A Want is a parcelable, whose
// presence mark stands before it; the trace shows its action, which is its first text.
#define MIGRATE_REQUESTS(REQUEST)                                                                                   \
    REQUEST(GET_MIGRATE_STATUS, 1, "uint32 stage -> MigrateStatus status, BusinessError error")                     \
    REQUEST(GET_MIGRATE_INFO, 2, "uint32 stage -> MigrateInfo info, BusinessError error")                           \
    REQUEST(GET_PAK_MIGRATE_INFO, 3, "-> PakMigrateInfo[] infos, BusinessError error")                              \
    REQUEST(GET_APK_INFO, 4, "-> string[] infos, BusinessError error")                                              \
    REQUEST(START_MIGRATE, 5, "-> BusinessError error")                                                             \
    REQUEST(START_PAK_MIGRATE, 6, "text package -> BusinessError error")                                            \
    REQUEST(REMOVE_MIGRATE, 7, "int32 user -> BusinessError error")                                                 \
    REQUEST(REMOVE_PAK_MIGRATE, 8, "text package -> BusinessError error")                                           \
    REQUEST(REGISTER_PROGRESS_CALLBACK, 9, "object IMigrateCallBack")                                               \
    REQUEST(UNREGISTER_PROGRESS_CALLBACK, 10, "")                                                                   \
    REQUEST(SET_MIGRATE_POLICY, 11, "int32 policy -> BusinessError error")                                          \
    REQUEST(CHECK_APP_RESTORE, 12, "text bundle -> text result, BusinessError error")                               \
    REQUEST(PRESET_DATA, 13, "text data -> BusinessError error")                                                    \
    REQUEST(GET_MIGRATE_RESULT, 14, "-> text result, BusinessError error")                                          \
    REQUEST(GET_MIGRATION_USERS, 15, "-> MigrationUser[] users, BusinessError error")                               \
    REQUEST(GET_MODULE_MIGRATION_POLICY, 16,                                                                        \
        "bool flag, ModuleInfo[] modules -> ModuleMigrationPolicy[] policies, BusinessError error")                 \
    REQUEST(RESUME_MIGRATION, 17, "-> BusinessError error")                                                         \
    REQUEST(GET_RESTORE_APP_INFOS, 18, "text name, int32 number -> text infos")                                     \
    REQUEST(RESTORE_APP, 19, "text name, text scene -> text error")                                                 \
    REQUEST(REGISTER_RESERVE_OBSERVER, 20, "text caller, object IReserveMigrateStatusObserver -> text error")       \
    REQUEST(UNREGISTER_RESERVE_OBSERVER, 21, "text caller -> text error")                                           \
    REQUEST(CLEAR_APP, 22, "text name, text scene -> text error")                                                   \
    REQUEST(CLEAR_ALL_VIRTUAL_DATA, 23, "text scene -> text error")                                                 \
    REQUEST(GET_RESTORE_APP_STATUS, 24, "text name, text scene -> text events")                                     \
    REQUEST(NOTIFY_EMPORION_CORE_EVENT, 25, "bool isPresent, Want want -> BusinessError error")                     \
    REQUEST(START_PAK_MIGRATION, 26, "text package, text bundle, text parameters -> BusinessError error")           \
    REQUEST(GET_PAK_MIGRATION_TASK_STATUS, 27, "text bundle -> ReserveMigrationStatus status, BusinessError error") \
    REQUEST(GET_MIGRATION_DATA_SIZE, 28, "-> int64 size, BusinessError error")                                      \
    REQUEST(ADJUST_APP_PRIORITY, 29, "text name, text priority -> text error")                                      \
    REQUEST(SET_BACKUP_FILE_OWN, 31, "object ISetBackupFileOwnInterface")

#define MIGRATE_REQUEST_CODE(code, number, fields) code = (number),
enum class MigrateRequestCode : uint32_t { MIGRATE_REQUESTS(MIGRATE_REQUEST_CODE) };
#undef MIGRATE_REQUEST_CODE

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
