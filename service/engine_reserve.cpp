// SPDX-License-Identifier: Apache-2.0
// Reserved applications: the packages of the source that their manifests set aside.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "engine_errors.h"
#include "migration_engine.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

namespace {

BusinessError NotSetAside()
{
    return MakeError(MIGRATE_ERROR_NOT_FOUND, "no application of that name is set aside");
}

}  // namespace

bool MigrationEngine::ReadReserved(std::vector<Package>& packages) const
{
    if (!catalog_.Read(packages)) {
        return false;
    }
    packages.erase(std::remove_if(packages.begin(), packages.end(),
                       [](const Package& package) { return !package.manifest.reserved; }),
        packages.end());
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

BusinessError MigrationEngine::GetReserved(const std::string& name, std::vector<RestoreAppInfo>& apps) const
{
    std::vector<RestoreEventInfo> events;
    BusinessError error = GetRestoreStatus(name, "", events);
    for (const RestoreEventInfo& event : events) {
        apps.push_back(event.restoreAppInfo);
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

AppRestoreCheck MigrationEngine::CheckRestore(const std::string& name) const
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

BusinessError MigrationEngine::Restore(const std::string& name, const std::string& scene)
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
    Transaction transaction = store_->Begin();
    if (earlier != nullptr) {
        store_->Erase(earlier->id);
    }
    const Task& added = store_->Add(task);
    const bool isWritten = transaction.Commit();
    Report(added);
    Wake();
    if (!isWritten) {
        return StateError();
    }
    return added.error.code != 0 ? MakeError(added.error.code, added.error.reason) : BusinessError();
}

// True when there was something to clear. A restoration under way ends without a trace.
bool MigrationEngine::ClearPackage(const Package& package)
{
    RestoreEventInfo event = RestoreEventOf(package);
    const std::string& target = package.manifest.target;
    const Task* const task = store_->Find(TaskKind::RESTORE, package.directory);
    const uint32_t taskId = task != nullptr ? task->id : 0;
    const bool isPlaced = IsPlaced(target, package.directory);
    if (isPlaced) {
        // A name that no task's copy has: the number is given away.
        const int64_t number = store_->Get(StateValue::NEXT_ID) + 1;
        store_->Set(StateValue::NEXT_ID, number);
        const std::string aside = StagingName(static_cast<uint32_t>(number));
        if (renameat(target_.Get(), target.c_str(), target_.Get(), aside.c_str()) != 0) {
            SA_LOGE("%{public}s can't be cleared: %{public}s", target.c_str(), strerror(errno));
            return false;
        }
        store_->ErasePlaced(target);
        rubbish_.push_back(aside);
    }
    if (taskId != 0) {
        store_->Erase(taskId);
    }
    if (isPlaced || taskId != 0) {
        event.status = static_cast<int32_t>(TaskStatus::IDLE);
        event.errorInfo = {};
        listener_.OnRestore(event);
        Wake();
    }
    return isPlaced || taskId != 0;
}

BusinessError MigrationEngine::ClearReserved(const std::string& name, const std::string& scene)
{
    Package package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    MutexLock lock(mutex_);
    const bool isMeant = scene.empty() || RestoreEventOf(package).restoreAppInfo.restoreScene == scene;
    return isMeant && ClearPackage(package) ? BusinessError()
                                            : MakeError(MIGRATE_ERROR_NOTHING, "nothing of it has been restored");
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
            ClearPackage(package);
        }
    }
    if (scene.empty()) {
        store_->ClearPriorities();
    }
    return {};
}

BusinessError MigrationEngine::AdjustPriority(const std::string& name, int32_t priority)
{
    Package package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    MutexLock lock(mutex_);
    bool isWritten = store_->SetPriority(package.directory, priority);
    if (Task* const task = store_->Find(TaskKind::RESTORE, package.directory)) {
        task->priority = priority;
        isWritten = store_->Save(*task) && isWritten;
    }
    return isWritten ? BusinessError() : StateError();
}

int32_t MigrationEngine::OwnBackups(uint32_t uid)
{
    std::vector<std::string> targets;
    {
        MutexLock lock(mutex_);
        for (const auto& [target, placed] : store_->AllPlaced()) {
            if (placed.owner >= 0 && placed.owner != uid) {
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
            target_.Get(), target,
            [this] {
                MutexLock lock(mutex_);
                return !stopping_;
            },
            size);
        if (fault.code != 0) {
            return fault.code;
        }
    }
    return RecordOwner(targets, uid);
}

// All or none: what another user has taken meanwhile is his.
int32_t MigrationEngine::RecordOwner(const std::vector<std::string>& targets, uint32_t uid)
{
    MutexLock lock(mutex_);
    for (const std::string& target : targets) {
        const Placed* const placed = store_->FindPlaced(target);
        if (placed == nullptr) {
            return MIGRATE_ERROR_TARGET;
        }
        if (placed->owner >= 0 && placed->owner != uid) {
            return MIGRATE_ERROR_OWNER;
        }
    }
    Transaction transaction = store_->Begin();
    for (const std::string& target : targets) {
        Placed placed = *store_->FindPlaced(target);
        placed.owner = uid;
        store_->SavePlaced(target, placed);
    }
    return transaction.Commit() ? 0 : MIGRATE_ERROR_STATE;
}

}  // namespace VEXA::UpdateEngine
