// SPDX-License-Identifier: Apache-2.0
// Reserved applications: the packages of the source that their manifests set aside.
#include <algorithm>
#include <cstdio>

#include "engine_errors.h"
#include "migration_engine.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

namespace {

BusinessError NotSetAside()
{
    return MakeError(MIGRATE_ERROR_NOT_FOUND, "no application of that name is set aside");
}

// Root may take what is anybody's.
bool IsAnothers(const Placed& placed, uint32_t uid)
{
    return placed.owner >= 0 && placed.owner != uid && uid != 0;
}

BusinessError NothingRestored()
{
    return MakeError(MIGRATE_ERROR_NOTHING, "nothing of it has been restored");
}

}  // namespace

bool MigrationEngine::ReadReserved(std::vector<Package>& packages) const
{
    if (!catalog_.Read(packages)) {
        return false;
    }
    std::erase_if(packages, [](const Package& package) { return !package.manifest.reserved; });
    MutexLock lock(mutex_);
    std::stable_sort(packages.begin(), packages.end(),
        [this](const Package& a, const Package& b)
            VEXA_REQUIRES(mutex_) { return store_->Priority(a.directory) > store_->Priority(b.directory); });
    return true;
}

BusinessError MigrationEngine::FindReserved(const std::string& name, Package& package) const
{
    std::vector<Package> packages;
    if (!ReadReserved(packages)) {
        return SourceError();
    }
    const Package* const found = PackageCatalog::Find(packages, name);
    if (found == nullptr) {
        return NotSetAside();
    }
    package = *found;
    return {};
}

RestoreEventInfo MigrationEngine::RestoreEventOf(const Package& package) const
{
    if (const Task* const task = store_->Find(TaskKind::RESTORE, package.directory)) {
        return task->AsRestoreEvent();
    }
    const bool isPlaced = IsPlaced(package.manifest.target, package.directory);
    const TaskStatus status = isPlaced ? TaskStatus::FINISHED : TaskStatus::IDLE;
    return {package.AsRestoreApp(), static_cast<int32_t>(status), FaultOf(package)};
}

BusinessError MigrationEngine::GetReserved(
    const std::string& name, int32_t most, std::vector<RestoreAppInfo>& apps) const
{
    std::vector<RestoreEventInfo> events;
    BusinessError error = GetRestoreStatus(name, "", events);
    for (const RestoreEventInfo& event : events) {
        if (most < 0 || apps.size() < static_cast<size_t>(most)) {
            apps.push_back(event.restoreAppInfo);
        }
    }
    return error;
}

BusinessError MigrationEngine::GetRestoreStatus(
    const std::string& name, const std::string& scene, std::vector<RestoreEventInfo>& events) const
{
    std::vector<Package> packages;
    if (!ReadReserved(packages)) {
        return SourceError();
    }
    if (!name.empty() && PackageCatalog::Find(packages, name) == nullptr) {
        return NotSetAside();
    }
    MutexLock lock(mutex_);
    for (const Package& package : packages) {
        RestoreEventInfo event = RestoreEventOf(package);
        if ((name.empty() || package.IsCalled(name)) && (scene.empty() || event.restoreAppInfo.restoreScene == scene)) {
            events.push_back(std::move(event));
        }
    }
    return {};
}

void MigrationEngine::IntroduceRestores(const std::function<void(std::vector<RestoreEventInfo>)>& receive) const
{
    MutexLock lock(mutex_);
    std::vector<RestoreEventInfo> events;
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind == TaskKind::RESTORE) {
            events.push_back(task.AsRestoreEvent());
        }
    }
    receive(std::move(events));
}

AppRestoreCheck MigrationEngine::CheckRestore(const Name& name) const
{
    AppRestoreCheck check{name, false, {}};
    Package package;
    if (const BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        check.reason = error.message;
        return check;
    }
    MutexLock lock(mutex_);
    const Task* const task = store_->Find(TaskKind::RESTORE, package.directory);
    check.reason = task != nullptr && !task->IsEnded() ? "it is being restored" : FaultOf(package).reason;
    check.canRestore = check.reason.empty();
    return check;
}

BusinessError MigrationEngine::Restore(const Name& name, const std::string& scene)
{
    Package package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    MutexLock lock(mutex_);
    const Task* const earlier = store_->Find(TaskKind::RESTORE, package.directory);
    if (earlier != nullptr && !earlier->IsEnded()) {
        return MakeError(MIGRATE_ERROR_BUSY, "it is being restored");
    }
    Task task = MakeTask(TaskKind::RESTORE, package);
    if (!scene.empty()) {
        task.app.restoreScene = scene;
    }
    task.priority = store_->Priority(package.directory);
    return AddTask(task);
}

// A restoration under way ends without a trace.
BusinessError MigrationEngine::ClearPackage(const Package& package)
{
    RestoreEventInfo event = RestoreEventOf(package);
    const std::string& target = package.manifest.target;
    const Task* const task = store_->Find(TaskKind::RESTORE, package.directory);
    const bool isPlaced = IsPlaced(target, package.directory);
    if (task == nullptr && !isPlaced) {
        return NothingRestored();
    }
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    if (task != nullptr) {
        store_->Erase(task->id);
    }
    std::string aside;
    if (isPlaced) {
        aside = MoveAway(target);
        if (aside.empty()) {
            return MakeError(MIGRATE_ERROR_WRITE, "it can't be taken out of its place");
        }
        store_->ErasePlaced(target);
    }
    if (!transaction.Commit()) {
        if (isPlaced) {
            renameat(target_.Get(), aside.c_str(), target_.Get(), target.c_str());
        }
        return StateError();
    }
    if (isPlaced) {
        rubbish_.push_back(aside);
    }
    event.status = static_cast<int32_t>(TaskStatus::IDLE);
    event.errorInfo = {};
    listener_.OnRestore(event);
    changed_.NotifyAll();
    return {};
}

BusinessError MigrationEngine::ClearReserved(const Name& name, const std::string& scene)
{
    Package package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    MutexLock lock(mutex_);
    const bool isMeant = scene.empty() || RestoreEventOf(package).restoreAppInfo.restoreScene == scene;
    return isMeant ? ClearPackage(package) : NothingRestored();
}

BusinessError MigrationEngine::ClearAllReserved(const std::string& scene)
{
    std::vector<Package> packages;
    if (!ReadReserved(packages)) {
        return SourceError();
    }
    MutexLock lock(mutex_);
    for (const Package& package : packages) {
        if (scene.empty() || RestoreEventOf(package).restoreAppInfo.restoreScene == scene) {
            BusinessError error = ClearPackage(package);
            if (error.errorNum != 0 && error.errorNum != MIGRATE_ERROR_NOTHING) {
                return error;
            }
        }
    }
    if (!scene.empty()) {
        return {};
    }
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    store_->ClearPriorities();
    return transaction.Commit() ? BusinessError() : StateError();
}

BusinessError MigrationEngine::AdjustPriority(const Name& name, NumberText priority)
{
    Package package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    MutexLock lock(mutex_);
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    store_->SetPriority(package.directory, priority);
    if (Task* const task = store_->Find(TaskKind::RESTORE, package.directory)) {
        task->priority = priority;
        store_->Save(*task);
    }
    return transaction.Commit() ? BusinessError() : StateError();
}

int32_t MigrationEngine::OwnBackups(uint32_t uid)
{
    std::vector<std::string> targets;
    {
        MutexLock lock(mutex_);
        for (const auto& [target, placed] : store_->AllPlaced()) {
            if (IsAnothers(placed, uid)) {
                return MIGRATE_ERROR_OWNER;
            }
            if (!IsPlaced(target, placed.source)) {
                return MIGRATE_ERROR_TARGET;
            }
            targets.push_back(target);
        }
    }
    if (targets.empty()) {
        return MIGRATE_ERROR_NOTHING;
    }
    for (const std::string& target : targets) {
        TreeSize size;
        const ErrorInfo fault = MeasureTree(
            target_.Get(), target, target_.Get(), [this] { return !IsStopping(); }, size);
        if (fault.code != 0) {
            return fault.code;
        }
    }
    return RecordOwner(targets, uid);
}

// All or none: what another user has taken meanwhile is his, unless root takes it.
int32_t MigrationEngine::RecordOwner(const std::vector<std::string>& targets, uint32_t uid)
{
    MutexLock lock(mutex_);
    for (const std::string& target : targets) {
        const Placed* const placed = store_->FindPlaced(target);
        if (placed == nullptr) {
            return MIGRATE_ERROR_TARGET;
        }
        if (IsAnothers(*placed, uid)) {
            return MIGRATE_ERROR_OWNER;
        }
    }
    auto transaction = store_->Begin(IfNotWritten::TAKE_BACK);
    for (const std::string& target : targets) {
        Placed placed = *store_->FindPlaced(target);
        placed.owner = uid;
        store_->SavePlaced(target, placed);
    }
    return transaction.Commit() ? 0 : MIGRATE_ERROR_STATE;
}

}  // namespace VEXA::UpdateEngine
