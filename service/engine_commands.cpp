// SPDX-License-Identifier: Apache-2.0
// What the engine is told to do with the migration.
#include "engine_errors.h"
#include "json_text.h"
#include "migration_engine.h"
#include "plain_name.h"

namespace VEXA::UpdateEngine {

Task MigrationEngine::MakeTask(TaskKind kind, const Package& package) const
{
    Task task;
    task.kind = kind;
    task.source = package.directory;
    task.target = package.manifest.target;
    task.app = package.AsRestoreApp();
    task.user = package.manifest.user;
    task.error = FaultOf(package);
    task.status = task.error.code == 0 ? TaskStatus::IDLE : TaskStatus::FAILED;
    return task;
}

BusinessError MigrationEngine::StartAll()
{
    std::vector<Package> packages;
    if (!catalog_.Read(packages)) {
        return SourceError();
    }
    MutexLock lock(mutex_);
    if (State() == TaskStatus::RUNNING || State() == TaskStatus::PAUSED) {
        return MakeError(MIGRATE_ERROR_BUSY, "a migration is under way");
    }
    const PresetChoices choices = Choices();
    BusinessError error;
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    RemoveTasks([](const Task&) { return true; });
    BeginRun();
    for (const Package& package : packages) {
        if (package.manifest.reserved || package.IsOneOf(choices.exclude)) {
            continue;
        }
        const Task& task = store_->Add(MakeTask(TaskKind::MIGRATE, package));
        if (task.error.code != 0) {
            error.data.push_back({task.error.code, task.source + ": " + task.error.reason});
        }
    }
    EndMigrationIfDone();
    if (!transaction.Commit()) {
        return StateError();
    }
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind == TaskKind::MIGRATE) {
            Report(task);
        }
    }
    changed_.NotifyAll();
    if (!error.data.empty()) {
        error.errorNum = MIGRATE_ERROR_SOME_PACKAGES;
        error.message = "some packages can't be migrated";
    }
    return error;
}

BusinessError MigrationEngine::StartPackage(const Name& name)
{
    return StartPackageAs(name, "", {});
}

BusinessError MigrationEngine::StartPackageAs(
    const Name& name, const std::string& targetName, const PakMigrationParameters& parameters)
{
    std::vector<Package> packages;
    if (!catalog_.Read(packages)) {
        return SourceError();
    }
    const Package* const found = PackageCatalog::Find(packages, name);
    if (found == nullptr) {
        return NoSuchPackage();
    }
    if (found->manifest.reserved) {
        return MakeError(MIGRATE_ERROR_RESERVED, "it is set aside: restore it instead");
    }
    Package package = *found;
    if (!targetName.empty()) {
        package.manifest.target = targetName;
        if (!IsPlainName(targetName)) {
            package.fault = {MIGRATE_ERROR_NAME, "the new name can't be that of a directory in the target", false};
        }
    }
    MutexLock lock(mutex_);
    const Task* const earlier = store_->Find(TaskKind::MIGRATE, package.directory);
    if (earlier != nullptr && !earlier->IsEnded()) {
        return MakeError(MIGRATE_ERROR_BUSY, "its migration is under way");
    }
    Task task = MakeTask(TaskKind::MIGRATE, package);
    if (task.error.code != 0) {
        BusinessError error = MakeError(task.error.code, "it can't be migrated");
        error.data.push_back({task.error.code, task.source + ": " + task.error.reason});
        return error;
    }
    task.priority = parameters.priority;
    return AddTask(task);
}

BusinessError MigrationEngine::AddTask(const Task& task)
{
    const Task* const earlier = store_->Find(task.kind, task.source);
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    if (earlier != nullptr) {
        store_->Erase(earlier->id);
    }
    if (task.kind == TaskKind::MIGRATE) {
        BeginRun();
    }
    const Task& added = store_->Add(task);
    if (!transaction.Commit()) {
        return StateError();
    }
    Report(added);
    changed_.NotifyAll();
    return added.error.code != 0 ? MakeError(added.error.code, added.error.reason) : BusinessError();
}

// Removes ended tasks too, and with them what is remembered of them. A worker that has one in hand finds it gone.
size_t MigrationEngine::RemoveTasks(const std::function<bool(const Task&)>& isMeant)
{
    const auto removed =
        store_->Select([&isMeant](const Task& task) { return task.kind == TaskKind::MIGRATE && isMeant(task); });
    for (const uint32_t id : removed) {
        store_->Erase(id);
    }
    return removed.size();
}

BusinessError MigrationEngine::RemoveUser(User user)
{
    return Remove([user](const Task& task) { return user == MIGRATE_ALL_USERS || task.user == user; });
}

BusinessError MigrationEngine::RemovePackage(const Name& name)
{
    return Remove([&name](const Task& task) { return task.IsCalled(name); });
}

BusinessError MigrationEngine::Remove(const std::function<bool(const Task&)>& isMeant)
{
    MutexLock lock(mutex_);
    std::vector<Task> open;
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind == TaskKind::MIGRATE && !task.IsEnded() && isMeant(task)) {
            open.push_back(task);
        }
    }
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    if (RemoveTasks(isMeant) == 0) {
        return MakeError(MIGRATE_ERROR_NOTHING, "there is no such task");
    }
    EndMigrationIfDone();
    if (!transaction.Commit()) {
        return StateError();
    }
    for (Task& task : open) {
        task.status = TaskStatus::FAILED;
        task.subStatus = MIGRATE_SUB_NONE;
        Report(task);
    }
    changed_.NotifyAll();
    return {};
}

BusinessError MigrationEngine::Pause(TaskPauseReason reason)
{
    MutexLock lock(mutex_);
    if (State() != TaskStatus::RUNNING) {
        return MakeError(MIGRATE_ERROR_NOTHING, "no migration is running");
    }
    return Switch(TaskStatus::RUNNING, TaskStatus::PAUSED, reason);
}

BusinessError MigrationEngine::Resume()
{
    MutexLock lock(mutex_);
    if (State() != TaskStatus::PAUSED) {
        return MakeError(MIGRATE_ERROR_NOTHING, "no migration is paused");
    }
    return Switch(TaskStatus::PAUSED, TaskStatus::RUNNING, TaskPauseReason::NONE);
}

BusinessError MigrationEngine::Notify(const MigrationEvent& event)
{
    if (event.action == MIGRATE_EVENT_PAUSE) {
        return Pause(event.reason);
    }
    if (event.action == MIGRATE_EVENT_RESUME) {
        return Resume();
    }
    return event.action == MIGRATE_EVENT_STOP ? RemoveUser(MIGRATE_ALL_USERS)
                                              : MakeError(MIGRATE_ERROR_EVENT, "the service knows no such event");
}

BusinessError MigrationEngine::Switch(TaskStatus from, TaskStatus to, TaskPauseReason reason)
{
    const auto affected =
        store_->Select([from](const Task& task) { return task.kind == TaskKind::MIGRATE && task.status == from; });
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    SetState(to);
    store_->Set(StateValue::PAUSE_REASON, static_cast<int64_t>(reason));
    for (const uint32_t id : affected) {
        Task& task = *store_->Find(id);
        task.status = to;
        store_->Save(task);
    }
    if (!transaction.Commit()) {
        return StateError();
    }
    for (const uint32_t id : affected) {
        Report(*store_->Find(id));
    }
    changed_.NotifyAll();
    return {};
}

BusinessError MigrationEngine::SetPolicy(Policy policy)
{
    MutexLock lock(mutex_);
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    store_->Set(StateValue::POLICY, policy);
    return transaction.Commit() ? BusinessError() : StateError();
}

BusinessError MigrationEngine::SetPreset(const PresetChoices& choices)
{
    MutexLock lock(mutex_);
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    store_->SetPreset(ToJson(choices));
    return transaction.Commit() ? BusinessError() : StateError();
}

}  // namespace VEXA::UpdateEngine
