// SPDX-License-Identifier: Apache-2.0
#include "migration_commands.h"

#include "engine_errors.h"
#include "json_from_struct.h"
#include "plain_name.h"
#include "tree_copier.h"

namespace VEXA::UpdateEngine {

namespace {

// Root may take backup files of anybody.
bool IsAnothers(const Placed& placed, uint32_t uid)
{
    return placed.owner >= 0 && placed.owner != uid && uid != 0;
}

}  // namespace

BusinessError MigrationCommands::StartAll()
{
    std::vector<KnownPackage> packages;
    if (BusinessError fault = state_.ReadPackages(packages); fault.errorNum != 0) {
        return fault;
    }
    StateChange change(state_);
    if (state_.IsUnderWay()) {
        return MakeError(MIGRATE_ERROR_BUSY, "a migration is under way");
    }
    TaskStore& store = *state_.store;
    const PresetChoices choices = state_.Choices();
    std::vector<ErrorMessage> faults;
    for (const TaskRef& task : store.Tasks().Select(TaskKind::MIGRATE)) {
        change.Breathe();
        store.Erase(task->id);
    }
    std::vector<TaskRef> added;
    for (const KnownPackage& one : packages) {
        if (one.package->manifest.reserved || one.package->IsOneOf(choices.exclude)) {
            continue;
        }
        change.Breathe();
        added.push_back(store.Add(one.MakeTask()));
        const Task& task = *added.back();
        if (task.error.code != 0) {
            faults.push_back({task.error.code, task.source + ": " + task.error.reason});
        }
    }
    state_.BeginRun();
    state_.EndRunIfDone();
    if (!change.Commit()) {
        return StateError();
    }
    for (const TaskRef& task : added) {
        change.Breathe();
        state_.Report(*task);
    }
    state_.Wake();
    return SomePackages("some packages can't be migrated", faults);
}

BusinessError MigrationCommands::StartPackageAs(
    const Name& name, const std::string& targetName, const PakMigrationParameters& parameters)
{
    KnownPackage found;
    if (BusinessError fault = state_.ReadPackage(name, found); fault.errorNum != 0) {
        return fault;
    }
    if (found.package->manifest.reserved) {
        return MakeError(MIGRATE_ERROR_RESERVED, "it is set aside: restore it instead");
    }
    Package package = *found.package;
    if (!targetName.empty()) {
        package.manifest.target = targetName;
        if (!IsPlainName(targetName)) {
            package.fault = {MIGRATE_ERROR_NAME, "the new name can't be that of a directory in the target", false};
        }
    }
    const auto there = state_.target->IdOf(package.manifest.target);
    StateChange change(state_);
    const KnownPackage known = state_.Know(std::make_shared<const Package>(package), there);
    if (known.task != nullptr && !known.task->IsEnded()) {
        return MakeError(MIGRATE_ERROR_BUSY, "its migration is under way");
    }
    Task task = known.MakeTask();
    if (task.error.code != 0) {
        const ErrorMessage reason{task.error.code, task.source + ": " + task.error.reason};
        return {"it can't be migrated", task.error.code, {reason}};
    }
    task.priority = parameters.priority;
    return state_.AddTask(task, change);
}

// Ended tasks go too, and with them what is remembered of them. A worker that has one in hand finds it gone.
BusinessError MigrationCommands::Remove(const std::function<bool(const Task&)>& isMeant)
{
    StateChange change(state_);
    const auto removed = state_.store->Tasks().Select(TaskKind::MIGRATE, isMeant);
    if (removed.empty()) {
        return MakeError(MIGRATE_ERROR_NOTHING, "there is no such task");
    }
    for (const TaskRef& task : removed) {
        change.Breathe();
        state_.store->Erase(task->id);
    }
    state_.EndRunIfDone();
    if (!change.Commit()) {
        return StateError();
    }
    for (const TaskRef& one : removed) {
        if (!one->IsEnded()) {
            Task task = *one;
            task.status = TaskStatus::FAILED;
            task.subStatus = MIGRATE_SUB_NONE;
            state_.Report(task);
        }
    }
    state_.Wake();
    return {};
}

BusinessError MigrationCommands::RemoveUser(User user)
{
    return Remove([user](const Task& task) { return user == MIGRATE_ALL_USERS || task.user == user; });
}

BusinessError MigrationCommands::RemovePackage(const Name& name)
{
    return Remove([&name](const Task& task) { return task.IsCalled(name); });
}

BusinessError MigrationCommands::Switch(TaskStatus from, TaskStatus to, TaskPauseReason reason)
{
    StateChange change(state_);
    if (state_.Status() != from) {
        const bool isPause = to == TaskStatus::PAUSED;
        return MakeError(MIGRATE_ERROR_NOTHING, isPause ? "no migration is running" : "no migration is paused");
    }
    const auto affected =
        state_.store->Tasks().Select(TaskKind::MIGRATE, [from](const Task& task) { return task.status == from; });
    state_.store->Set(StateValue::STATUS, static_cast<int64_t>(to));
    state_.store->Set(StateValue::PAUSE_REASON, static_cast<int64_t>(reason));
    for (const TaskRef& one : affected) {
        Task task = *one;
        task.status = to;
        state_.store->Save(task);
    }
    if (!change.Commit()) {
        return StateError();
    }
    for (const TaskRef& one : affected) {
        state_.Report(*state_.store->Tasks().Find(one->id));
    }
    state_.Wake();
    return {};
}

BusinessError MigrationCommands::Notify(const MigrationEvent& event)
{
    if (event.action == MIGRATE_EVENT_PAUSE) {
        return Pause(static_cast<TaskPauseReason>(event.reason));
    }
    if (event.action == MIGRATE_EVENT_RESUME) {
        return Resume();
    }
    return event.action == MIGRATE_EVENT_STOP ? RemoveUser(MIGRATE_ALL_USERS)
                                              : MakeError(MIGRATE_ERROR_EVENT, "the service knows no such event");
}

BusinessError MigrationCommands::SetPolicy(Policy policy)
{
    StateChange change(state_);
    state_.store->Set(StateValue::POLICY, policy);
    return change.Commit() ? BusinessError() : StateError();
}

BusinessError MigrationCommands::SetPreset(const PresetChoices& choices)
{
    StateChange change(state_);
    state_.store->SetPreset(ToJson(choices));
    return change.Commit() ? BusinessError() : StateError();
}

int32_t MigrationCommands::OwnBackups(uint32_t uid)
{
    std::map<std::string, Placed> packages;
    {
        MutexLock lock(state_.mutex);
        packages = state_.store->AllPlaced();
    }
    std::erase_if(packages, [](const auto& package) { return package.second.isLeaving; });
    for (const auto& [target, placed] : packages) {
        if (IsAnothers(placed, uid)) {
            return MIGRATE_ERROR_OWNER;
        }
        if (state_.target->IdOf(target) != placed.id) {
            return MIGRATE_ERROR_TARGET;
        }
    }
    for (const auto& [target, placed] : packages) {
        TreeSize size;
        const auto goOn = [this] { return !state_.isStopping; };
        const int fd = state_.target->Fd();
        if (const ErrorInfo fault = MeasureTree(fd, target, fd, goOn, size); fault.code != 0) {
            return fault.code;
        }
    }
    return packages.empty() ? MIGRATE_ERROR_NOTHING : RecordOwner(uid, packages);
}

// All are taken or none. A package that another user has taken meanwhile is that user's, unless root takes it.
int32_t MigrationCommands::RecordOwner(uint32_t uid, const std::map<std::string, Placed>& packages)
{
    StateChange change(state_);
    for (const auto& [target, before] : packages) {
        const Placed* const placed = state_.store->FindPlaced(target);
        if (placed == nullptr || placed->isLeaving) {
            return MIGRATE_ERROR_TARGET;
        }
        if (IsAnothers(*placed, uid)) {
            return MIGRATE_ERROR_OWNER;
        }
        Placed owned = *placed;
        owned.owner = uid;
        state_.store->SavePlaced(target, &owned);
    }
    return change.Commit() ? 0 : MIGRATE_ERROR_STATE;
}

}  // namespace VEXA::UpdateEngine
