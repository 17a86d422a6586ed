// SPDX-License-Identifier: Apache-2.0
#include "placement.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "engine_errors.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

namespace {

ErrorInfo Note(EngineState& state, const Task& task, const FileId& staged, const CopiedTree& copied)
{
    StateChange change(state, IfNotWritten::KEEP);
    if (!state.MayGoOn(task.id)) {
        return Stopped();
    }
    Task noted = *state.store->Tasks().Find(task.id);
    noted.doneBytes = static_cast<int64_t>(copied.size.bytes);
    noted.totalBytes = std::max(noted.totalBytes, noted.doneBytes);
    noted.files = static_cast<int64_t>(copied.size.files);
    noted.subStatus = MIGRATE_SUB_PLACING;
    noted.staged = staged;
    state.store->Save(noted);
    const bool isWritten = change.Commit();
    state.Report(noted);
    // Without that note the next start would not know the package as its own.
    return isWritten ? ErrorInfo() : ErrorInfo{MIGRATE_ERROR_STATE, StateError().message, true};
}

bool SyncCopy(const EngineState& state, const CopiedTree& copied)
{
    const TargetDirectory& target = *state.target;
    return !state.options.sync || ((copied.isOnDisk || target.SyncAll()) && target.SyncMarks() && state.SyncState());
}

ErrorInfo MoveIntoPlace(EngineState& state, uint32_t id)
{
    StateChange change(state, IfNotWritten::KEEP);
    if (!state.MayGoOn(id)) {
        return Stopped();
    }
    const TaskRef task = state.store->Tasks().Find(id);
    const std::string staged = TargetDirectory::StagingName(id);
    const auto there = state.target->IdOf(task->target);
    const Placed* const placed = state.store->FindPlaced(task->target);
    const bool isOwn = there && placed != nullptr && placed->id == *there;
    if (there && !(isOwn && (placed->isLeaving || placed->source == task->source))) {
        return TargetTaken();
    }
    const bool isDone = there ? state.target->Exchange(staged, task->target, TargetDirectory::AsideName(id))
                              : state.target->MoveToFreeName(staged, task->target);
    if (!isDone) {
        return WriteFault(errno);
    }
    NotePlaced(state, *task);
    change.Commit();
    return {};
}

}  // namespace

// The content, the mark and the note of what is to be placed come first, then the name, and the task's end last: at
// whatever point the process dies or a loss of power leaves the disk, the next start can tell a whole package from a
// part, and its own from others'.
ErrorInfo Place(EngineState& state, const Task& task, const CopiedTree& copied)
{
    TargetDirectory& target = *state.target;
    const std::string staged = TargetDirectory::StagingName(task.id);
    const auto id = target.IdOf(staged);
    if (!id) {
        return {MIGRATE_ERROR_WRITE, "what was copied has gone", true};
    }
    ErrorInfo fault = Note(state, task, *id, copied);
    if (fault.code == 0 && (!target.SetMark({*id, task.target, task.source}) || !SyncCopy(state, copied))) {
        fault = WriteFault(errno);
    }
    if (fault.code == 0) {
        fault = MoveIntoPlace(state, task.id);
    }
    if (fault.code == 0 && state.options.sync && !target.SyncNames()) {
        // The older package stays: nobody knows which of them the disk has.
        return WriteFault(errno);
    }
    RemoveStaged(state, staged);
    if (fault.code == 0) {
        RemoveStaged(state, TargetDirectory::AsideName(task.id));
    }
    return fault;
}

void NotePlaced(EngineState& state, const Task& task)
{
    // A new copy keeps the owner of the old one.
    const Placed* const before = state.store->FindPlaced(task.target);
    const int64_t owner = before != nullptr && !before->isLeaving ? before->owner : -1;
    const Placed now{task.source, task.staged, owner};
    state.store->SavePlaced(task.target, &now);
}

bool MoveAway(EngineState& state, const std::string& name)
{
    for (;;) {
        const int64_t number = state.store->Get(StateValue::NEXT_ID) + 1;
        state.store->Set(StateValue::NEXT_ID, number);
        const std::string aside = TargetDirectory::StagingName(static_cast<uint32_t>(number));
        if (state.target->MoveToFreeName(name, aside)) {
            state.rubbish.push_back(aside);
            return true;
        }
        const int reason = errno;
        if (!state.target->IdOf(aside)) {
            SA_LOGE("%{public}s can't be moved aside: %{public}s", name.c_str(), strerror(reason));
            errno = reason;
            return false;
        }
    }
}

void RemoveStaged(const EngineState& state, const std::string& name)
{
    const auto id = state.target->IdOf(name);
    const bool isGone = RemoveTree(state.target->Fd(), name, [&state] { return !state.isStopping; });
    if (isGone && id) {
        state.target->RemoveMark(*id);
    } else if (!isGone && !state.isStopping) {
        SA_LOGW("%{public}s can't be removed", name.c_str());
    }
}

}  // namespace VEXA::UpdateEngine
