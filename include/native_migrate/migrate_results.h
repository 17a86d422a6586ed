// SPDX-License-Identifier: Apache-2.0
// The values that the migration service defines and the library only carries: its results, the error numbers in its
// records, policies and events. The service and its clients include this header.
#pragma once

#include <cstdint>

namespace VEXA::UpdateEngine {

// Results of requests, as the clients return them. 104 is the library's own: the request was not answered.
inline constexpr int32_t MIGRATE_BAD_ARGUMENT = 1;  // a field is missing or has a value that is not allowed
inline constexpr int32_t MIGRATE_NO_SUCH_APP = 2;   // no application of that name is set aside
inline constexpr int32_t MIGRATE_TOO_MANY = 3;      // the service has as many callbacks, observers or jobs as it keeps
inline constexpr int32_t MIGRATE_INTERNAL = 4;      // no reply or state could be written, or it is not ready yet
inline constexpr int32_t MIGRATE_NOT_ALLOWED = 5;   // the caller may not change anything

// The numbers in BusinessError::errorNum, ErrorMessage::errorCode, ErrorInfo::code and the notice of backup files. 0 is
// no error.
// These concern the whole request:
inline constexpr int32_t MIGRATE_ERROR_SOME_PACKAGES = 1;  // some packages can't be migrated; `data` says which and why
inline constexpr int32_t MIGRATE_ERROR_BUSY = 2;           // a migration or restoration is under way already
inline constexpr int32_t MIGRATE_ERROR_NOTHING = 3;        // there is nothing that the request could apply to
inline constexpr int32_t MIGRATE_ERROR_NOT_FOUND = 4;      // there is no package of that name
inline constexpr int32_t MIGRATE_ERROR_EVENT = 5;          // the service doesn't know the event
inline constexpr int32_t MIGRATE_ERROR_SOURCE = 6;         // the source directory can't be read
inline constexpr int32_t MIGRATE_ERROR_STATE = 7;          // the service's state can't be written; of a package too
// These concern one package:
inline constexpr int32_t MIGRATE_ERROR_MANIFEST = 20;     // its manifest is not valid
inline constexpr int32_t MIGRATE_ERROR_NAME = 21;         // its name can't be a directory's, or is kept for the service
inline constexpr int32_t MIGRATE_ERROR_UNREADABLE = 22;   // something in it can't be read
inline constexpr int32_t MIGRATE_ERROR_TARGET = 23;       // the target has something else under its name
inline constexpr int32_t MIGRATE_ERROR_UNSUPPORTED = 24;  // it holds what can't be copied: devices, the target
inline constexpr int32_t MIGRATE_ERROR_WRITE = 25;        // the target can't be written
inline constexpr int32_t MIGRATE_ERROR_NO_SPACE = 26;     // the target is full; may be tried again
inline constexpr int32_t MIGRATE_ERROR_CHANGED = 27;      // it changed while it was copied; may be tried again
inline constexpr int32_t MIGRATE_ERROR_STOPPED = 28;      // another one failed before, and the policy is to stop then
inline constexpr int32_t MIGRATE_ERROR_RESERVED = 29;     // it is set aside: to be restored, not migrated
inline constexpr int32_t MIGRATE_ERROR_OWNER = 30;        // it belongs to another user

// The status of tasks, of the migration as a whole and of reserved applications is a TaskStatus. As a whole: IDLE
// before the first start, FINISHED when every task has finished, FAILED when all have ended and some have failed.

// TaskInfo::subStatus.
inline constexpr uint32_t MIGRATE_SUB_NONE = 0;
inline constexpr uint32_t MIGRATE_SUB_COPYING = 1;
inline constexpr uint32_t MIGRATE_SUB_PLACING = 2;

// MigratePolicy::policy: what happens to the packages that wait when one has failed.
inline constexpr int32_t MIGRATE_POLICY_GO_ON = 0;
inline constexpr int32_t MIGRATE_POLICY_STOP = 1;

// RemoveMigrate for the tasks of every user.
inline constexpr int32_t MIGRATE_ALL_USERS = -1;

// The events of NotifyEmporionCoreEvent, as actions of the want.
inline constexpr char MIGRATE_EVENT_PAUSE[] = "pause";    // int32 parameter "reason": a TaskPauseReason, USER if absent
inline constexpr char MIGRATE_EVENT_RESUME[] = "resume";  // as ResumeMigration
inline constexpr char MIGRATE_EVENT_STOP[] = "stop";      // as RemoveMigrate for every user

}  // namespace VEXA::UpdateEngine
