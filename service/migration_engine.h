// SPDX-License-Identifier: Apache-2.0
// The migration itself: moves packages from the source to the target, restores reserved applications, and remembers
// what it has done. Knows nothing of IPC.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "native_migrate/migrate_records.h"
#include "operation_fields.h"
#include "package_catalog.h"
#include "service_records.h"
#include "task_store.h"
#include "throttle.h"
#include "tree_copier.h"
#include "vexa/base/mutex.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine {

// Told of changes in the order in which they happen, under the engine's lock: must return soon and not call back.
class EngineListener {
public:
    virtual ~EngineListener() = default;
    // A task of the migration has another status, or has come further.
    virtual void OnTask(const TaskProgress& task) = 0;
    // A reserved application has another status.
    virtual void OnRestore(const RestoreEventInfo& event) = 0;
};

struct EngineOptions {
    std::string source;
    std::string target;           // must exist
    std::string stateFile;        // empty: .migrate-state.db in the target
    uint64_t bytesPerSecond = 0;  // of each worker; 0: as fast as it goes
    bool sync = true;             // a package counts as placed when the disk has it, not before
};

// All operations may be called from any thread and wait for no copying; those that look into the source or target take
// as long as reading directories does. Errors are BusinessErrors with the numbers of
// "native_migrate/migrate_results.h". By its signature an operation can answer a request: what it takes by value or by
// const reference are the request's fields, and what it takes by reference, or returns in place of an error, is the
// reply.
//
// A package is copied to a directory of the target whose name begins with ".staging-", and that is renamed when it is
// complete: under its name the target has all of a package or what was there before. A directory that the engine has
// not placed itself is never replaced. Whatever ends the process, or with `sync` the whole machine, the next engine on
// the same state goes on with the packages that had not reached their place, and removes the staging directories
// meanwhile.
class MigrationEngine {
public:
    // Null, with the reason in `error`, when the directories or the state can't be used. Starts nothing yet.
    static std::unique_ptr<MigrationEngine> Open(
        const EngineOptions& options, EngineListener& listener, std::string& error);
    // As Stop.
    ~MigrationEngine();
    MigrationEngine(const MigrationEngine&) = delete;
    MigrationEngine& operator=(const MigrationEngine&) = delete;

    // Starts the two workers, one for the migration and one for reserved applications. What was under way goes on.
    void Start();
    // Ends the workers within the time of one piece, or that the disk takes for what it has not got yet; what they were
    // doing is taken up by the next engine. What is asked for after that is only remembered.
    void Stop();

    // The migration. Stages: PREPARE has the tasks that wait, DOWNLOAD those that are being copied, INSTALL those that
    // are being put into place, FINISH those that have ended, RESTORE those of reserved applications, NONE all but
    // these.
    MigrateStatus GetStatus(MigrateStage stage) const;
    MigrateInfo GetInfo(MigrateStage stage) const;
    void GetProgress(MigrateStage& stage, MigrateProgress& progress) const;
    // Hands over the state of every task, as an event for somebody who has heard of none yet. `receive` is called as a
    // listener is, so that nothing happens between what it gets and what the listener is told next.
    void IntroduceTasks(const std::function<void(std::vector<TaskProgress>)>& receive) const;
    MigrationResult GetResult() const;
    BusinessError GetPackages(std::vector<PakMigrateInfo>& packages) const;
    BusinessError GetBundleNames(std::vector<std::string>& names) const;
    BusinessError GetUsers(std::vector<MigrationUser>& users) const;
    BusinessError GetModulePolicies(
        bool isOnlyPlaced, const std::vector<ModuleInfo>& modules, std::vector<ModuleMigrationPolicy>& policies) const;
    BusinessError GetDataSize(int64_t& bytes) const;
    BusinessError GetPackageStatus(const Name& name, ReserveMigrationStatus& status) const;

    // Begins to migrate every package that is not set aside or excluded. Returns at once; `data` has one element for
    // each package that can't be migrated, and the others are.
    BusinessError StartAll();
    // Adds one package to the migration.
    BusinessError StartPackage(const Name& name);
    // The same under the target name `targetName`, unless that is empty.
    BusinessError StartPackageAs(
        const Name& name, const std::string& targetName, const PakMigrationParameters& parameters);
    // Drops tasks; one that is being copied ends without a trace. What is in its place stays there.
    BusinessError RemoveUser(User user);
    BusinessError RemovePackage(const Name& name);
    BusinessError Pause(TaskPauseReason reason);
    BusinessError Resume();
    // Pauses, resumes, or drops every task.
    BusinessError Notify(const MigrationEvent& event);
    BusinessError SetPolicy(Policy policy);
    BusinessError SetPreset(const PresetChoices& choices);

    // Reserved applications, highest priority first, then by name. An empty name or scene stands for all, and so does a
    // negative `most`.
    BusinessError GetReserved(const std::string& name, int32_t most, std::vector<RestoreAppInfo>& apps) const;
    BusinessError GetRestoreStatus(
        const std::string& name, const std::string& scene, std::vector<RestoreEventInfo>& events) const;
    // The same as IntroduceTasks with every restoration that was asked for.
    void IntroduceRestores(const std::function<void(std::vector<RestoreEventInfo>)>& receive) const;
    AppRestoreCheck CheckRestore(const Name& name) const;
    // `scene` is the application's restoreScene from now on, unless it is empty.
    BusinessError Restore(const Name& name, const std::string& scene);
    // Takes away what was restored of it; the application itself stays set aside.
    BusinessError ClearReserved(const Name& name, const std::string& scene);
    BusinessError ClearAllReserved(const std::string& scene);
    BusinessError AdjustPriority(const Name& name, NumberText priority);

    // Makes what is in the target the backup files of a user: 0, or the error number of the first package that is gone,
    // can't be read, or belongs to another user while this one isn't root. Reads all of the target's directories.
    int32_t OwnBackups(uint32_t uid);

private:
    using Clock = std::chrono::steady_clock;

    MigrationEngine(const EngineOptions& options, EngineListener& listener, std::unique_ptr<TaskStore> store,
        UniqueFd source, UniqueFd target, UniqueFd stateDirectory);

    // Before the workers: undoes what a sudden end has left.
    void Recover();
    // An older package that was on its way to be replaced.
    void PutBack(const Task& task) VEXA_REQUIRES(mutex_);
    void CollectRubbish() VEXA_REQUIRES(mutex_);
    // Renames what is in the target to a staging name that no task's copy will have; empty when it can't be.
    std::string MoveAway(const std::string& name) VEXA_REQUIRES(mutex_);

    void Work(TaskKind kind);
    void RemoveRubbish() VEXA_REQUIRES(mutex_);
    // Ends early when the engine does.
    void RemoveStaged(const std::string& name) VEXA_EXCLUDES(mutex_);
    Task* NextTask(TaskKind kind) VEXA_REQUIRES(mutex_);
    bool MeasureNext(TaskKind kind) VEXA_REQUIRES(mutex_);
    void RunTask(uint32_t id, Throttle& throttle) VEXA_REQUIRES(mutex_);
    ErrorInfo Copy(const Task& task, Throttle& throttle, TreeSize& copied);
    bool Advance(uint32_t id, uint64_t bytes, Throttle& throttle);
    bool IsStopping() const VEXA_EXCLUDES(mutex_);
    bool MayGoOn(uint32_t id) const VEXA_REQUIRES(mutex_);
    // Puts the staged directory into its place; an older package of that name comes to the staged one instead. The lock
    // is open while the disk is waited for: the task may be gone, or the engine stopping, afterwards.
    ErrorInfo Place(Task& task) VEXA_REQUIRES(mutex_);
    // Waits, with the lock open, until the disk has all that was written.
    ErrorInfo Sync() VEXA_REQUIRES(mutex_);
    ErrorInfo MoveIntoPlace(const Task& task, const std::string& staged) VEXA_REQUIRES(mutex_);
    void NotePlaced(const Task& task) VEXA_REQUIRES(mutex_);
    void EndTask(Task& task, const ErrorInfo& fault) VEXA_REQUIRES(mutex_);
    void StopTheRest() VEXA_REQUIRES(mutex_);
    void EndMigrationIfDone() VEXA_REQUIRES(mutex_);
    // False when it can't be written.
    bool Changed(const Task& task) VEXA_REQUIRES(mutex_);
    void Report(const Task& task) VEXA_REQUIRES(mutex_);

    TaskStatus State() const VEXA_REQUIRES(mutex_);
    void SetState(TaskStatus state) VEXA_REQUIRES(mutex_);
    TaskPauseReason PauseReason() const VEXA_REQUIRES(mutex_);
    MigrateStage CurrentStage() const VEXA_REQUIRES(mutex_);
    MigrateProgress Progress() const VEXA_REQUIRES(mutex_);
    bool IsInStage(const Task& task, MigrateStage stage) const VEXA_REQUIRES(mutex_);
    void BeginRun() VEXA_REQUIRES(mutex_);
    Task MakeTask(TaskKind kind, const Package& package) const VEXA_REQUIRES(mutex_);
    // In place of the ended one of its kind and source. Returns the task's own error when it has one.
    BusinessError AddTask(const Task& task) VEXA_REQUIRES(mutex_);
    size_t RemoveTasks(const std::function<bool(const Task&)>& isMeant) VEXA_REQUIRES(mutex_);
    BusinessError Remove(const std::function<bool(const Task&)>& isMeant) VEXA_EXCLUDES(mutex_);
    // Between running and paused.
    BusinessError Switch(TaskStatus from, TaskStatus to, TaskPauseReason reason) VEXA_REQUIRES(mutex_);

    bool IsPlaced(const std::string& target, const std::string& source) const VEXA_REQUIRES(mutex_);
    // The fault of a package, that of its place in the target included.
    ErrorInfo FaultOf(const Package& package) const VEXA_REQUIRES(mutex_);
    RestoreEventInfo RestoreEventOf(const Package& package) const VEXA_REQUIRES(mutex_);
    BusinessError ClearPackage(const Package& package) VEXA_REQUIRES(mutex_);
    std::optional<FileId> IdOf(const std::string& targetName) const;
    int32_t RecordOwner(const std::vector<std::string>& targets, uint32_t uid);
    // Find all applications that are set aside, or the one of that name; its errorNum says why there is none.
    bool ReadReserved(std::vector<Package>& packages) const;
    BusinessError FindReserved(const std::string& name, Package& package) const;
    PresetChoices Choices() const VEXA_REQUIRES(mutex_);
    static std::string StagingName(uint32_t id);
    // Where the older package is while the task's copy takes its place, if the file system can't exchange them.
    static std::string AsideName(uint32_t id);

    const EngineOptions options_;
    EngineListener& listener_;
    const PackageCatalog catalog_;
    const UniqueFd source_;
    const UniqueFd target_;
    const UniqueFd stateDirectory_;  // none when the state is in the target

    mutable Mutex mutex_{LockRank::Engine};
    CondVar changed_;
    const std::unique_ptr<TaskStore> store_ VEXA_PT_GUARDED_BY(mutex_);
    RateMeter meter_ VEXA_GUARDED_BY(mutex_);
    Clock::time_point reported_ VEXA_GUARDED_BY(mutex_);
    bool stopping_ VEXA_GUARDED_BY(mutex_) = false;
    // Names in the target of what is still to be removed: cleared applications, and what a sudden end has left.
    std::vector<std::string> rubbish_ VEXA_GUARDED_BY(mutex_);
    std::vector<std::thread> workers_;
};

// An error that says something of the whole request.
BusinessError MakeError(int32_t number, const std::string& message);

}  // namespace VEXA::UpdateEngine
