// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "native_migrate/business_error.h"
#include "native_migrate/export.h"
#include "native_migrate/iset_backup_file_own_interface.h"
#include "native_migrate/migrate_records.h"
#include "native_migrate/progress_callback.h"
#include "vexa/base/refbase.h"
#include "vexa/want/want.h"

namespace VEXA::UpdateEngine {

// The client of the migration service. One object serves the whole process and is never destroyed.
//
// Every operation is one synchronous request; a death of the service may add some to On and Off. All of them may be
// called from any thread, also at the same time, and none is repeated on failure.
//
// Results of every operation:
//     0      success, whatever the reply's texts hold
//     104    the service can't be reached or started in time, or the request can't be begun, sent or answered in time:
//            one that was sent may have been carried out
//     other  what the service answered
// The service's results, and the numbers in its records, stand in "native_migrate/migrate_results.h". Arguments go to
// it unchanged and unchecked; what is said here of their meaning is what the reference service makes of them. A request
// has room for 16 MiB: a text that does not fit is left out, and the service answers what it makes of the others.
// Outputs are written on 0 only. A record is bound as far as the service's text fits it, and keeps its content where
// the text says nothing; lists are appended to; texts and numbers are replaced. `error` is the service's own error
// record.
//
// Blocking: an operation waits at most 8 seconds for the answer. When the service is not known yet, or has died, it
// first reaches the manager, within 1 second, asks it for the service, which takes no time unless the manager hangs and
// then at most 8 seconds, and starts the service, for at most 5. Operations that meanwhile need the service on other
// threads wait for that lookup and share what it has found; when it has failed, they look in turn, one after the other.
// A connection that has to be made may add a second, one that is lost half a second.
class NATIVE_MIGRATE_EXPORT MigrateServerKits {
public:
    // The process's client, made on first use. Doesn't contact the service. From any thread.
    static MigrateServerKits& GetKitsInstance();

    virtual ~MigrateServerKits() = default;

    // The state of a stage. `status`: whether it has a task, and the TaskStatus of the whole migration.
    virtual int32_t GetMigrateStatus(const MigrateStage& stage, MigrateStatus& status, BusinessError& error) = 0;

    // Starts the migration of all packages; returns when it has begun. Its progress comes through On.
    virtual int32_t StartMigrate(BusinessError& error) = 0;

    // Starts the migration of one package. `request`: its name.
    virtual int32_t StartPakMigrate(const std::string& request, BusinessError& error) = 0;

    // Removes the tasks of a user. `request`: the user, or MIGRATE_ALL_USERS.
    virtual int32_t RemoveMigrate(int32_t request, BusinessError& error) = 0;

    // Removes the task of one package. `request`: its name.
    virtual int32_t RemovePakMigrate(const std::string& request, BusinessError& error) = 0;

    // The progress and the tasks of a stage.
    virtual int32_t GetMigrateInfo(const MigrateStage& stage, MigrateInfo& info, BusinessError& error) = 0;

    // The packages that are migrated; appended to `infos`.
    virtual int32_t GetPakMigrateInfo(std::vector<PakMigrateInfo>& infos, BusinessError& error) = 0;

    // The applications that are migrated; appended to `infos`.
    virtual int32_t GetApkInfo(std::vector<std::string>& infos, BusinessError& error) = 0;

    // Registers `callback` for progress events, in place of the one registered before. The callable is copied; it runs
    // on threads of the process's IPC pool, on several at once when events come at the same time. After a death of the
    // service it is registered with the next instance without the caller's doing. On failure the callback registered
    // before stays. One request, except around a death of the service: when the service dies as it answers, or the
    // registration after a death overlaps with calls of On and Off, the one of these that ends last tells the service
    // once more what is in force before it returns. That blocks as an operation does, happens again when it overlaps
    // with another one, and changes nothing in the result.
    virtual int32_t On(const ProgressCallback& callback) = 0;

    // Withdraws all progress callbacks. Once the request was sent, the library's own reference to the callback is gone,
    // also when the result is not 0; when the service can't be reached, the callback stays registered. An event that is
    // under way may still arrive. One request, with the exception that On has.
    virtual int32_t Off() = 0;

    // Sets what happens when a package fails. Only `policy.policy` is sent: MIGRATE_POLICY_GO_ON or _STOP.
    virtual int32_t SetMigratePolicy(const MigratePolicy& policy, BusinessError& error) = 0;

    // Asks whether an application can be restored. `result`: the service's text, unparsed.
    virtual int32_t CheckAppRestore(const std::string& bundleName, std::string& result, BusinessError& error) = 0;

    // Gives the service data to keep for the starts that follow. `data`: its choices as a JSON object, or empty.
    virtual int32_t PresetData(const std::string& data, BusinessError& error) = 0;

    // The result of the migration. `result`: the service's text, unparsed.
    virtual int32_t GetMigrateResult(std::string& result, BusinessError& error) = 0;

    // The users that are migrated, source and target; appended to `users`.
    virtual int32_t GetMigrationUsers(std::vector<MigrationUser>& users, BusinessError& error) = 0;

    // How each of `modules` is migrated, or every one when there is none; appended to `policies`. With `flag` only what
    // is in the target already counts.
    virtual int32_t GetModuleMigrationPolicy(const bool& flag, const std::vector<ModuleInfo>& modules,
        std::vector<ModuleMigrationPolicy>& policies, BusinessError& error) = 0;

    // Resumes a suspended migration.
    virtual int32_t ResumeMigration(BusinessError& error) = 0;

    // Starts the migration of one package under another name, which may be empty for its own. `parameters`: empty, or a
    // JSON object whose number "priority" is higher for what goes first.
    virtual int32_t StartPakMigration(const std::string& packageName, const std::string& bundleName,
        const std::string& parameters, BusinessError& error) = 0;

    // Passes an event on to the service, in the intent's own marshalling: MIGRATE_EVENT_PAUSE, _RESUME or _STOP as its
    // action.
    virtual int32_t NotifyEmporionCoreEvent(const AAFwk::Want& want, BusinessError& error) = 0;

    // The state of an application's package migration.
    virtual int32_t GetPakMigrationTaskStatus(
        const std::string& bundleName, ReserveMigrationStatus& status, BusinessError& error) = 0;

    // The size of the data to migrate, in bytes.
    virtual int32_t GetMigrationDataSize(int64_t& size, BusinessError& error) = 0;

    // Asks the service to change the ownership of the caller's backup files; `callback` hears when that is done, on a
    // thread of the IPC pool. The library keeps no reference to it and doesn't ask again after a death of the service.
    // A null `callback` is answered with 104, and nothing is sent.
    virtual int32_t SetBackupFileOwn(const sptr<ISetBackupFileOwnInterface>& callback) = 0;
};

}  // namespace VEXA::UpdateEngine
