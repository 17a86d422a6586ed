// SPDX-License-Identifier: Apache-2.0
// What the engine's two workers do.
#include <sys/statvfs.h>

#include <cerrno>
#include <utility>

#include "migration_engine.h"
#include "move.h"
#include "service_limits.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

namespace {

bool HasSpace(int targetFd, int64_t bytes)
{
    struct statvfs status = {};
    return fstatvfs(targetFd, &status) != 0 ||
           static_cast<uint64_t>(bytes) / status.f_frsize <= static_cast<uint64_t>(status.f_bavail);
}

}  // namespace

void MigrationEngine::Work(TaskKind kind)
{
    Throttle throttle(options_.bytesPerSecond);
    MutexLock lock(mutex_);
    while (!stopping_) {
        if (kind == TaskKind::RESTORE && !rubbish_.empty()) {
            RemoveRubbish();
        } else if (MeasureNext(kind)) {
            continue;
        } else if (Task* const task = NextTask(kind)) {
            RunTask(task->id, throttle);
        } else {
            changed_.WaitFor(mutex_, kIdle, [this, kind]() VEXA_REQUIRES(mutex_) {
                return stopping_ || NextTask(kind) != nullptr || (kind == TaskKind::RESTORE && !rubbish_.empty());
            });
        }
    }
}

void MigrationEngine::RemoveRubbish()
{
    const std::vector<std::string> names = std::exchange(rubbish_, {});
    mutex_.unlock();
    for (const std::string& name : names) {
        RemoveStaged(name);
    }
    mutex_.lock();
}

void MigrationEngine::RemoveStaged(const std::string& name)
{
    if (!RemoveTree(target_.Get(), name, [this] { return !IsStopping(); }) && !IsStopping()) {
        SA_LOGW("%{public}s can't be removed", name.c_str());
    }
}

Task* MigrationEngine::NextTask(TaskKind kind)
{
    if (kind == TaskKind::MIGRATE && State() != TaskStatus::RUNNING) {
        return nullptr;
    }
    Task* next = nullptr;
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind == kind && task.status == TaskStatus::IDLE &&
            (next == nullptr || task.priority > next->priority)) {
            next = store_->Find(id);
        }
    }
    return next;
}

// Sizes first, so that percentages are those of the whole.
bool MigrationEngine::MeasureNext(TaskKind kind)
{
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind != kind || task.status != TaskStatus::IDLE || task.totalBytes >= 0) {
            continue;
        }
        const uint32_t measured = id;
        const std::string source = task.source;
        TreeSize size;
        mutex_.unlock();
        const ErrorInfo fault = MeasureTree(
            source_.Get(), source, target_.Get(),
            [this, measured] {
                MutexLock lock(mutex_);
                return MayGoOn(measured);
            },
            size);
        mutex_.lock();
        Task* const result = store_->Find(measured);
        if (result == nullptr || stopping_) {
            return true;
        }
        result->totalBytes = static_cast<int64_t>(size.bytes);
        result->files = static_cast<int64_t>(size.files);
        if (fault.code != 0) {
            EndTask(*result, fault);
        } else {
            store_->Save(*result);
        }
        return true;
    }
    return false;
}

void MigrationEngine::RunTask(uint32_t id, Throttle& throttle)
{
    Task* task = store_->Find(id);
    task->status = TaskStatus::RUNNING;
    task->subStatus = MIGRATE_SUB_COPYING;
    task->doneBytes = 0;
    Changed(*task);
    const Task running = *task;
    const std::string staged = StagingName(id);
    TreeSize copied;
    mutex_.unlock();
    ErrorInfo fault = Copy(running, throttle, copied);
    mutex_.lock();

    task = store_->Find(id);
    if (task != nullptr && !stopping_ && fault.code == 0) {
        task->doneBytes = static_cast<int64_t>(copied.bytes);
        task->totalBytes = task->doneBytes;
        task->files = static_cast<int64_t>(copied.files);
        fault = Place(*task);
    }
    if (stopping_) {
        return;
    }
    // What is left there: a part, or the older package that was replaced.
    mutex_.unlock();
    RemoveStaged(staged);
    if (fault.code == 0) {
        RemoveStaged(AsideName(id));
    }
    mutex_.lock();
    task = store_->Find(id);
    if (task != nullptr && !stopping_) {
        EndTask(*task, fault);
    }
}

ErrorInfo MigrationEngine::Copy(const Task& task, Throttle& throttle, TreeSize& copied)
{
    if (!HasSpace(target_.Get(), task.totalBytes)) {
        return {MIGRATE_ERROR_NO_SPACE, "the target has no room for it", true};
    }
    CopyControl control;
    control.pieceBytes = throttle.PieceBytes();
    control.advance = [this, id = task.id, &throttle](uint64_t bytes) { return Advance(id, bytes, throttle); };
    return CopyTree(source_.Get(), task.source, target_.Get(), StagingName(task.id), control, copied);
}

bool MigrationEngine::IsStopping() const
{
    MutexLock lock(mutex_);
    return stopping_;
}

bool MigrationEngine::MayGoOn(uint32_t id) const
{
    return !stopping_ && store_->Tasks().count(id) != 0;
}

bool MigrationEngine::Advance(uint32_t id, uint64_t bytes, Throttle& throttle)
{
    MutexLock lock(mutex_);
    const auto now = Clock::now();
    Task* const task = store_->Find(id);
    if (task == nullptr) {
        return false;
    }
    const bool isMigration = task->kind == TaskKind::MIGRATE;
    if (bytes > 0) {
        task->doneBytes += static_cast<int64_t>(bytes);
        if (isMigration) {
            meter_.Add(bytes, now);
        }
        if (isMigration && now - reported_ >= kReportInterval) {
            Report(*task);
        }
    }
    changed_.WaitUntil(mutex_, throttle.Spend(bytes, now), [this, id]() VEXA_REQUIRES(mutex_) { return !MayGoOn(id); });
    while (isMigration && State() == TaskStatus::PAUSED && MayGoOn(id)) {
        changed_.WaitFor(mutex_, kIdle,
            [this, id]() VEXA_REQUIRES(mutex_) { return State() != TaskStatus::PAUSED || !MayGoOn(id); });
    }
    return MayGoOn(id);
}

ErrorInfo MigrationEngine::Place(Task& task)
{
    const std::string staged = StagingName(task.id);
    const auto id = IdOf(staged);
    if (!id) {
        return {MIGRATE_ERROR_WRITE, "what was copied has gone", true};
    }
    task.subStatus = MIGRATE_SUB_PLACING;
    task.staged = *id;
    // Without that note the next start would not know the package for its own.
    if (!Changed(task)) {
        return {MIGRATE_ERROR_STATE, "the service's state can't be written", true};
    }
    const uint32_t number = task.id;
    // The content and the note of what is to be placed come first, then the name, and the task's end last: at whatever
    // point a loss of power leaves the disk, the next start can tell a whole package from a part.
    ErrorInfo fault = Sync();
    const Task* const waiting = store_->Find(number);
    if (fault.code != 0 || waiting == nullptr || stopping_) {
        return fault;
    }
    fault = MoveIntoPlace(*waiting, staged);
    if (fault.code == 0) {
        NotePlaced(*waiting);
        fault = Sync();
    }
    return fault;
}

ErrorInfo MigrationEngine::Sync()
{
    if (!options_.sync) {
        return {};
    }
    mutex_.unlock();
    const bool done = syncfs(target_.Get()) == 0 && (!stateDirectory_ || syncfs(stateDirectory_.Get()) == 0);
    const int reason = errno;
    mutex_.lock();
    return done ? ErrorInfo() : WriteFault(reason);
}

void MigrationEngine::NotePlaced(const Task& task)
{
    // A new copy keeps the owner of the old one.
    const Placed* const before = store_->FindPlaced(task.target);
    const int64_t owner = before != nullptr ? before->owner : -1;
    store_->SavePlaced(task.target, {task.source, task.app.packageName, task.staged, owner});
}

ErrorInfo MigrationEngine::MoveIntoPlace(const Task& task, const std::string& staged)
{
    const bool isThere = IdOf(task.target).has_value();
    if (isThere && !IsPlaced(task.target, task.source)) {
        return {MIGRATE_ERROR_TARGET, "the target has something else of that name", false};
    }
    const bool isDone = isThere ? Exchange(target_.Get(), staged, task.target, AsideName(task.id))
                                : MoveToFreeName(target_.Get(), staged, task.target);
    return isDone ? ErrorInfo() : WriteFault(errno);
}

void MigrationEngine::EndTask(Task& task, const ErrorInfo& fault)
{
    task.status = fault.code == 0 ? TaskStatus::FINISHED : TaskStatus::FAILED;
    task.subStatus = MIGRATE_SUB_NONE;
    task.error = fault;
    if (fault.code != 0) {
        SA_LOGE("%{public}s failed with %{public}d: %{public}s", task.source.c_str(), fault.code, fault.reason.c_str());
    } else {
        SA_LOGI("%{public}s is in its place", task.source.c_str());
    }
    auto transaction = store_->Begin(IfNotWritten::KEEP);
    store_->Save(task);
    if (task.kind == TaskKind::MIGRATE) {
        if (fault.code != 0 && store_->Get(StateValue::POLICY) == MIGRATE_POLICY_STOP) {
            StopTheRest();
        }
        EndMigrationIfDone();
    }
    transaction.Commit();
    // Last, so that who hears of the last task's end finds the migration ended.
    Report(task);
}

void MigrationEngine::StopTheRest()
{
    const auto waiting = store_->Select(
        [](const Task& task) { return task.kind == TaskKind::MIGRATE && task.status == TaskStatus::IDLE; });
    for (const uint32_t id : waiting) {
        Task& task = *store_->Find(id);
        task.status = TaskStatus::FAILED;
        task.error = {MIGRATE_ERROR_STOPPED, "another package failed before", true};
        Changed(task);
    }
}

}  // namespace VEXA::UpdateEngine
