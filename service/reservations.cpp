// SPDX-License-Identifier: Apache-2.0
#include "reservations.h"

#include <algorithm>

#include "engine_errors.h"
#include "placement.h"

namespace VEXA::UpdateEngine {

namespace {

BusinessError NotSetAside()
{
    return MakeError(MIGRATE_ERROR_NOT_FOUND, "no application of that name is set aside");
}

RestoreEventInfo EventOf(const KnownPackage& one)
{
    if (one.task != nullptr) {
        return one.task->AsRestoreEvent();
    }
    const TaskStatus status = one.isPlaced ? TaskStatus::FINISHED : TaskStatus::IDLE;
    return {one.package->AsRestoreApp(), static_cast<int32_t>(status), one.fault};
}

bool IsInScene(const KnownPackage& one, const std::string& scene)
{
    return scene.empty() || EventOf(one).restoreAppInfo.restoreScene == scene;
}

}  // namespace

BusinessError Reservations::ReadReserved(std::vector<KnownPackage>& packages) const
{
    BusinessError fault = state_.ReadPackages(packages);
    std::erase_if(packages, [](const KnownPackage& one) { return !one.package->manifest.reserved; });
    std::stable_sort(packages.begin(), packages.end(),
        [](const KnownPackage& a, const KnownPackage& b) { return a.priority > b.priority; });
    return fault;
}

BusinessError Reservations::FindReserved(const std::string& name, KnownPackage& package) const
{
    std::vector<KnownPackage> packages;
    if (BusinessError fault = ReadReserved(packages); fault.errorNum != 0) {
        return fault;
    }
    const KnownPackage* const found = EngineState::Find(packages, name);
    if (found == nullptr) {
        return NotSetAside();
    }
    package = *found;
    return {};
}

BusinessError Reservations::GetReserved(const std::string& name, int32_t most, std::vector<RestoreAppInfo>& apps) const
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

BusinessError Reservations::GetRestoreStatus(
    const std::string& name, const std::string& scene, std::vector<RestoreEventInfo>& events) const
{
    std::vector<KnownPackage> packages;
    if (BusinessError fault = ReadReserved(packages); fault.errorNum != 0) {
        return fault;
    }
    bool isKnown = name.empty();
    for (const KnownPackage& one : packages) {
        const bool isMeant = name.empty() || one.package->IsCalled(name);
        isKnown = isKnown || isMeant;
        if (isMeant && IsInScene(one, scene)) {
            events.push_back(EventOf(one));
        }
    }
    return isKnown ? BusinessError() : NotSetAside();
}

void Reservations::IntroduceRestores(const std::function<void(std::vector<RestoreEventInfo>)>& receive) const
{
    MutexLock lock(state_.mutex);
    std::vector<RestoreEventInfo> events;
    for (const auto& [id, task] : state_.store->Tasks().ById()) {
        if (task->kind == TaskKind::RESTORE) {
            events.push_back(task->AsRestoreEvent());
        }
    }
    receive(std::move(events));
}

AppRestoreCheck Reservations::CheckRestore(const Name& name) const
{
    AppRestoreCheck check{name, false, {}};
    KnownPackage package;
    if (const BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        check.reason = error.message;
        return check;
    }
    const bool isUnderWay = package.task != nullptr && !package.task->IsEnded();
    check.reason = isUnderWay ? "it is being restored" : package.fault.reason;
    check.canRestore = check.reason.empty();
    return check;
}

BusinessError Reservations::Restore(const Name& name, const std::string& scene)
{
    KnownPackage package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    Task task = package.MakeTask();
    if (!scene.empty()) {
        task.app.restoreScene = scene;
    }
    StateChange change(state_);
    const TaskRef earlier = state_.store->Tasks().Find(TaskKind::RESTORE, task.source);
    if (earlier != nullptr && !earlier->IsEnded()) {
        return MakeError(MIGRATE_ERROR_BUSY, "it is being restored");
    }
    task.priority = state_.store->Priority(task.source);
    return state_.AddTask(task, change);
}

BusinessError Reservations::ClearReserved(const Name& name, const std::string& scene)
{
    KnownPackage package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    return Clear({package}, scene, false);
}

BusinessError Reservations::ClearAllReserved(const std::string& scene)
{
    std::vector<KnownPackage> packages;
    if (BusinessError fault = ReadReserved(packages); fault.errorNum != 0) {
        return fault;
    }
    return Clear(std::move(packages), scene, true);
}

// As safe as placing: that they leave is noted, and on the disk, before they do. A start that finds the note ends it.
BusinessError Reservations::Clear(std::vector<KnownPackage> packages, const std::string& scene, bool isAll)
{
    std::erase_if(packages,
        [&scene](const KnownPackage& one) { return !IsInScene(one, scene) || (one.task == nullptr && !one.isPlaced); });
    if (packages.empty() && !isAll) {
        return MakeError(MIGRATE_ERROR_NOTHING, "nothing of it has been restored");
    }
    BusinessError error = NoteLeaving(packages, isAll && scene.empty());
    if (error.errorNum != 0) {
        return error;
    }
    const bool isNoted = state_.SyncState();
    for (const KnownPackage& one : packages) {
        const BusinessError fault = TakeAway(one, isNoted);
        error = error.errorNum == 0 ? fault : error;
    }
    return error;
}

// A restoration under way ends without a trace.
BusinessError Reservations::NoteLeaving(const std::vector<KnownPackage>& packages, bool isAll)
{
    StateChange change(state_);
    TaskStore& store = *state_.store;
    for (const KnownPackage& one : packages) {
        if (const TaskRef task = store.Tasks().Find(TaskKind::RESTORE, one.package->directory)) {
            store.Erase(task->id);
        }
        const std::string& target = one.package->manifest.target;
        const Placed* const placed = store.FindPlaced(target);
        if (placed != nullptr && placed->source == one.package->directory) {
            Placed leaving = *placed;
            leaving.isLeaving = true;
            store.SavePlaced(target, &leaving);
        }
    }
    if (isAll) {
        store.ClearPriorities();
    }
    if (!change.Commit()) {
        return StateError();
    }
    state_.Wake();
    return {};
}

BusinessError Reservations::TakeAway(const KnownPackage& package, bool isNoted)
{
    StateChange change(state_, IfNotWritten::KEEP);
    const std::string& target = package.package->manifest.target;
    const Placed* const placed = state_.store->FindPlaced(target);
    if (placed != nullptr && !placed->isLeaving) {
        return {};  // restored again meanwhile
    }
    RestoreEventInfo event = EventOf(package);
    event.errorInfo = {};
    const bool isThere = placed != nullptr && state_.target->IdOf(target) == placed->id;
    const bool isGone = !isThere || (isNoted && MoveAway(state_, target));
    event.status = static_cast<int32_t>(isGone ? TaskStatus::IDLE : TaskStatus::FINISHED);
    if (placed != nullptr) {
        Placed stays = *placed;
        stays.isLeaving = false;
        state_.store->SavePlaced(target, isGone ? nullptr : &stays);
    }
    change.Commit();
    state_.listener.OnRestore(event);
    state_.Wake();
    return isGone    ? BusinessError()
           : isNoted ? MakeError(MIGRATE_ERROR_WRITE, "it can't be taken out of its place")
                     : StateError();
}

BusinessError Reservations::AdjustPriority(const Name& name, NumberText priority)
{
    KnownPackage package;
    if (BusinessError error = FindReserved(name, package); error.errorNum != 0) {
        return error;
    }
    StateChange change(state_);
    const std::string& directory = package.package->directory;
    state_.store->SetPriority(directory, priority);
    if (const TaskRef known = state_.store->Tasks().Find(TaskKind::RESTORE, directory)) {
        Task task = *known;
        task.priority = priority;
        state_.store->Save(task);
    }
    return change.Commit() ? BusinessError() : StateError();
}

}  // namespace VEXA::UpdateEngine
