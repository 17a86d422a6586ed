// SPDX-License-Identifier: Apache-2.0
#include "engine_state.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <thread>
#include <utility>

#include "engine_errors.h"
#include "json_parse.h"

namespace VEXA::UpdateEngine {

namespace {

// How much is done under the lock before others may have it, and for how long.
constexpr size_t kPiece = 256;
constexpr std::chrono::microseconds kPause(100);

}  // namespace

Task KnownPackage::MakeTask() const
{
    return {.kind = Kind(),
        .source = package->directory,
        .target = package->manifest.target,
        .app = package->app,
        .user = package->manifest.user,
        .status = fault.code == 0 ? TaskStatus::IDLE : TaskStatus::FAILED,
        .error = fault};
}

BusinessError EngineState::ReadPackages(std::vector<KnownPackage>& packages) const
{
    std::vector<PackageRef> found;
    if (!catalog.Read(found)) {
        return MakeError(MIGRATE_ERROR_SOURCE, "the source directory can't be read");
    }
    std::vector<std::optional<FileId>> there;
    there.reserve(found.size());
    for (const PackageRef& package : found) {
        there.push_back(target->IdOf(package->manifest.target));
    }
    // This goes in pieces, so that nobody waits long for the lock.
    for (; packages.size() < found.size(); std::this_thread::sleep_for(kPause)) {
        MutexLock lock(mutex);
        for (size_t i = packages.size(), end = std::min(found.size(), i + kPiece); i < end; ++i) {
            packages.push_back(Know(found[i], there[i]));
        }
    }
    return {};
}

BusinessError EngineState::ReadPackage(const std::string& name, KnownPackage& package) const
{
    std::vector<KnownPackage> packages;
    BusinessError fault = ReadPackages(packages);
    if (const KnownPackage* const found = Find(packages, name)) {
        package = *found;
        return fault;
    }
    return fault.errorNum != 0 ? fault : MakeError(MIGRATE_ERROR_NOT_FOUND, "there is no package of that name");
}

const KnownPackage* EngineState::Find(const std::vector<KnownPackage>& packages, const std::string& name)
{
    auto found = std::ranges::find_if(packages, [&](const auto& one) { return one.package->directory == name; });
    if (found == packages.end()) {
        found = std::ranges::find_if(packages, [&](const auto& one) { return one.package->IsCalled(name); });
    }
    return found != packages.end() ? &*found : nullptr;
}

KnownPackage EngineState::Know(const PackageRef& package, std::optional<FileId> there) const
{
    const PackageManifest& manifest = package->manifest;
    const Placed* const placed = store->FindPlaced(manifest.target);
    // A package that has been placed or taken away since the look is looked at again.
    if (there && (placed == nullptr || placed->id != *there)) {
        there = target->IdOf(manifest.target);
    }
    const bool isOwn = there && placed != nullptr && placed->id == *there;
    KnownPackage known;
    known.package = package;
    known.task = store->Tasks().Find(known.Kind(), package->directory);
    known.isPlaced = isOwn && !placed->isLeaving && placed->source == package->directory;
    known.priority = store->Priority(package->directory);
    known.fault = package->fault;
    if (known.fault.code == 0 && there && !known.isPlaced && !(isOwn && placed->isLeaving)) {
        known.fault = TargetTaken();
    }
    return known;
}

PresetChoices EngineState::Choices() const
{
    PresetChoices choices;
    JsonParse::JsonStrToStruct(store->Preset(), choices);
    return choices;
}

void EngineState::BeginRun()
{
    if (!IsUnderWay()) {
        meter = {};
        store->Set(StateValue::STATUS, static_cast<int64_t>(TaskStatus::RUNNING));
        store->Set(StateValue::START_TIME, time(nullptr));
        store->Set(StateValue::END_TIME, 0);
    }
}

void EngineState::EndRunIfDone()
{
    const TaskSums& sums = store->Tasks().Sums(TaskKind::MIGRATE);
    if (store->Tasks().CountIn(MigrateStage::FINISH) < sums.tasks) {
        return;
    }
    const TaskStatus ended = sums.failed > 0 ? TaskStatus::FAILED : TaskStatus::FINISHED;
    store->Set(StateValue::STATUS, static_cast<int64_t>(sums.tasks == 0 ? TaskStatus::IDLE : ended));
    store->Set(StateValue::END_TIME, time(nullptr));
}

BusinessError EngineState::AddTask(const Task& task, StateChange& change)
{
    if (const TaskRef earlier = store->Tasks().Find(task.kind, task.source)) {
        store->Erase(earlier->id);
    }
    if (task.kind == TaskKind::MIGRATE) {
        BeginRun();
    }
    const TaskRef added = store->Add(task);
    if (!change.Commit()) {
        return StateError();
    }
    Report(*added);
    Wake();
    return added->error.code != 0 ? MakeError(added->error.code, added->error.reason) : BusinessError();
}

void EngineState::Report(const Task& task)
{
    if (task.kind == TaskKind::MIGRATE) {
        listener.OnTask(task.AsProgress(PauseReason()));
    } else {
        listener.OnRestore(task.AsRestoreEvent());
    }
}

void EngineState::Wake()
{
    ++turn;
    changed.NotifyAll();
}

StateChange::StateChange(EngineState& state, IfNotWritten ifNotWritten) VEXA_NO_THREAD_SAFETY_ANALYSIS
    : store_(*state.store),
      changing_(state.changing),
      lock_(state.mutex)
{
    store_.Begin(ifNotWritten);
}

StateChange::~StateChange() VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    store_.TakeBack();
}

bool StateChange::Commit() VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    lock_.Unlock();
    const bool isWritten = store_.Commit();
    lock_.Lock();
    return isWritten;
}

// A mutex is not fair: whoever waits for it needs time to wake up.
void StateChange::Breathe() VEXA_NO_THREAD_SAFETY_ANALYSIS
{
    if (++steps_ % kPiece == 0) {
        lock_.Unlock();
        std::this_thread::sleep_for(kPause);
        lock_.Lock();
    }
}

}  // namespace VEXA::UpdateEngine
