// SPDX-License-Identifier: Apache-2.0
// The directories and the state that the parts of the engine share, and the changes that several of them make.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "native_migrate/migrate_records.h"
#include "package_catalog.h"
#include "service_records.h"
#include "state_file.h"
#include "target_directory.h"
#include "task_store.h"
#include "throttle.h"
#include "vexa/base/mutex.h"
#include "vexa/base/unique_fd.h"

namespace VEXA::UpdateEngine {

// Is told of changes in the order in which they happen, under the engine's lock: must return soon and not call back.
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

class StateChange;

// A package with what the service knows of it.
struct KnownPackage {
    PackageRef package;
    TaskRef task;  // of its migration or restoration; null when there is none
    bool isPlaced = false;
    int32_t priority = 0;
    ErrorInfo fault;  // the package's, or that its place in the target has something else

    bool CanBeMigrated() const { return !package->manifest.reserved && package->fault.code == 0; }
    TaskKind Kind() const { return package->manifest.reserved ? TaskKind::RESTORE : TaskKind::MIGRATE; }
    Task MakeTask() const;
};

// Under the lock nothing is read from disk, but for single names, and nothing grows with a package's content. Whatever
// belongs to the state is changed in a StateChange only.
class EngineState {
public:
    EngineState(const EngineOptions& engineOptions, EngineListener& engineListener,
        std::unique_ptr<TaskStore> taskStore, UniqueFd sourceFd, std::unique_ptr<TargetDirectory> targetDirectory)
        : options(engineOptions),
          listener(engineListener),
          catalog(engineOptions.source),
          source(std::move(sourceFd)),
          target(std::move(targetDirectory)),
          store(std::move(taskStore))
    {}

    // Returns every package; an error when the source can't be read.
    BusinessError ReadPackages(std::vector<KnownPackage>& packages) const VEXA_EXCLUDES(mutex);
    // Returns one package; an error also when there is none of that name.
    BusinessError ReadPackage(const std::string& name, KnownPackage& package) const VEXA_EXCLUDES(mutex);
    // Returns the package whose directory, or else whose bundle, has that name; null when there is none.
    static const KnownPackage* Find(const std::vector<KnownPackage>& packages, const std::string& name);
    // `there` is what has been seen in its place in the target.
    KnownPackage Know(const PackageRef& package, std::optional<FileId> there) const VEXA_REQUIRES(mutex);

    TaskStatus Status() const VEXA_REQUIRES(mutex) { return static_cast<TaskStatus>(store->Get(StateValue::STATUS)); }
    bool IsUnderWay() const VEXA_REQUIRES(mutex)
    {
        return Status() == TaskStatus::RUNNING || Status() == TaskStatus::PAUSED;
    }
    TaskPauseReason PauseReason() const VEXA_REQUIRES(mutex)
    {
        return static_cast<TaskPauseReason>(store->Get(StateValue::PAUSE_REASON));
    }
    PresetChoices Choices() const VEXA_REQUIRES(mutex);
    void BeginRun() VEXA_REQUIRES(mutex);
    void EndRunIfDone() VEXA_REQUIRES(mutex);

    // Carries out a change that puts it in place of the ended one of its kind and source. Returns the task's own error
    // when it has one.
    BusinessError AddTask(const Task& task, StateChange& change) VEXA_REQUIRES(mutex);
    // False when a worker's task is gone, or the engine ends.
    bool MayGoOn(uint32_t id) const VEXA_REQUIRES(mutex) { return !isStopping && store->Tasks().Find(id) != nullptr; }
    void Report(const Task& task) VEXA_REQUIRES(mutex);
    // Makes the workers look again for work, and whether their present work is still wanted.
    void Wake() VEXA_REQUIRES(mutex);
    // Waits until the disk has what has been committed. False, with errno, when it can't take it.
    bool SyncState() const VEXA_EXCLUDES(mutex) { return !options.sync || SyncStateFile(options.stateFile); }

    const EngineOptions options;
    EngineListener& listener;
    const PackageCatalog catalog;
    const UniqueFd source;
    const std::unique_ptr<TargetDirectory> target;

    Mutex changing{LockRank::EngineChange};
    mutable Mutex mutex{LockRank::Engine};
    CondVar changed;
    const std::unique_ptr<TaskStore> store VEXA_PT_GUARDED_BY(mutex);
    RateMeter meter VEXA_GUARDED_BY(mutex);
    // Names in the target that are still to be removed: cleared applications, and the rest of a sudden end.
    std::vector<std::string> rubbish VEXA_GUARDED_BY(mutex);
    std::atomic<bool> isStopping{false};
    std::atomic<uint32_t> turn{0};  // grows with every Wake
};

// One change of the state, in memory and on disk, under the engine's lock. While the disk takes it only other changes
// wait: the lock is free for those who ask, and their answers may be ahead of the disk.
class VEXA_SCOPED_CAPABILITY StateChange {
public:
    explicit StateChange(EngineState& state, IfNotWritten ifNotWritten = IfNotWritten::TAKE_BACK)
        VEXA_ACQUIRE(state.changing, state.mutex);
    // Without a commit nothing of the change is written.
    ~StateChange() VEXA_RELEASE();
    StateChange(const StateChange&) = delete;
    StateChange& operator=(const StateChange&) = delete;

    // False when the disk does not take it.
    bool Commit();
    // Called for each of many steps, so that those who ask need not wait for all.
    void Breathe();

private:
    TaskStore& store_;
    MutexLock changing_;
    MutexLock lock_;
    size_t steps_ = 0;
};

}  // namespace VEXA::UpdateEngine
