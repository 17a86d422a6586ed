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

BusinessError BeingRestored()
{
    return MakeError(MIGRATE_ERROR_BUSY, "it is being restored");
}

RestoreEventInfo EventOf(const KnownPackage& one)
{
    if (one.task != nullptr) {
        return one.task->AsRestoreEvent();
    }
    const TaskStatus status = one.isPlaced ? TaskStatus::FINISHED : TaskStatus::IDLE;
    return {one.package->app, static_cast<int32_t>(status), one.fault};
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
    std::ranges::stable_sort(packages, std::greater(), &KnownPackage::priority);
    return fault;
}

BusinessError Reservations::WithReserved(
    const std::string& name, const std::function<BusinessError(const KnownPackage&)>& act) const
{
    std::vector<KnownPackage> packages;
    BusinessError fault = ReadReserved(packages);
    const KnownPackage* const found = EngineState::Find(packages, name);
    return fault.errorNum != 0 ? fault : found != nullptr ? act(*found) : NotSetAside();
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
    BusinessError fault = ReadReserved(packages);
    bool isKnown = name.empty();
    for (const KnownPackage& one : packages) {
        const bool isMeant = name.empty() || one.package->IsCalled(name);
        isKnown = isKnown || isMeant;
        if (isMeant && IsInScene(one, scene)) {
            events.push_back(EventOf(one));
        }
    }
    return fault.errorNum != 0 || isKnown ? fault : NotSetAside();
}

void Reservations::IntroduceRestores(const std::function<void(std::vector<RestoreEventInfo>)>& receive) const
{
    MutexLock lock(state_.mutex);
    std::vector<RestoreEventInfo> events;
    for (const TaskRef& task : state_.store->Tasks().Select(TaskKind::RESTORE)) {
        events.push_back(task->AsRestoreEvent());
    }
    receive(std::move(events));
}

AppRestoreCheck Reservations::CheckRestore(const Name& name) const
{
    const BusinessError error = WithReserved(name, [](const KnownPackage& package) {
        const bool isUnderWay = package.task != nullptr && !package.task->IsEnded();
        return isUnderWay ? BeingRestored() : MakeError(package.fault.code, package.fault.reason);
    });
    return {name, error.message.empty(), error.message};
}

BusinessError Reservations::Restore(const Name& name, const std::string& scene)
{
    return WithReserved(name, [&](const KnownPackage& package) {
        Task task = package.MakeTask();
        if (!scene.empty()) {
            task.app.restoreScene = scene;
        }
        StateChange change(state_);
        const TaskRef earlier = state_.store->Tasks().Find(TaskKind::RESTORE, task.source);
        if (earlier != nullptr && !earlier->IsEnded()) {
            return BeingRestored();
        }
        task.priority = state_.store->Priority(task.source);
        return state_.AddTask(task, change);
    });
}

BusinessError Reservations::ClearReserved(const Name& name, const std::string& scene)
{
    return WithReserved(name, [&](const KnownPackage& package) { return Clear({package}, scene, false); });
}

BusinessError Reservations::ClearAllReserved(const std::string& scene)
{
    std::vector<KnownPackage> packages;
    const BusinessError fault = ReadReserved(packages);
    return fault.errorNum != 0 ? fault : Clear(std::move(packages), scene, true);
}

// Clearing is as safe as placing: the note that they leave is on the disk before they do. A start that finds the note
// completes the clearing.
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
    return change.Commit() ? BusinessError() : StateError();
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
    return WithReserved(name, [&](const KnownPackage& package) {
        StateChange change(state_);
        const std::string& directory = package.package->directory;
        state_.store->SetPriority(directory, priority);
        if (const TaskRef known = state_.store->Tasks().Find(TaskKind::RESTORE, directory)) {
            Task task = *known;
            task.priority = priority;
            state_.store->Save(task);
        }
        return change.Commit() ? BusinessError() : StateError();
    });
}

}  // namespace VEXA::UpdateEngine
