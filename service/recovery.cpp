// SPDX-License-Identifier: Apache-2.0
#include "recovery.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "placement.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

namespace {

class Recovery {
public:
    explicit Recovery(EngineState& state) : state_(state), marks_(state.target->Marks()) {}

    void Run()
    {
        StateChange change(state_, IfNotWritten::KEEP);
        Adopt();
        PutBack();
        ReopenTasks(TaskKind::MIGRATE);
        ReopenTasks(TaskKind::RESTORE);
        CollectRubbish();
        FinishLeaving();  // comes behind that, because it leaves new rubbish
        change.Commit();
    }

private:
    // Packages in their place with a mark are the service's, even if the state knows nothing of them.
    void Adopt() VEXA_REQUIRES(state_.mutex)
    {
        for (const Mark& mark : marks_) {
            if (IdOf(mark.target) == mark.id) {
                Know(mark);
            }
        }
    }

    void FinishLeaving() VEXA_REQUIRES(state_.mutex)
    {
        const auto placed = state_.store->AllPlaced();
        for (const auto& [target, record] : placed) {
            const bool isThere = record.isLeaving && IdOf(target) == record.id;
            if (record.isLeaving && (!isThere || MoveAway(state_, target))) {
                state_.store->SavePlaced(target, nullptr);
            }
        }
    }

    // Puts back packages that were moved aside for a successor that has not come.
    void PutBack() VEXA_REQUIRES(state_.mutex)
    {
        for (const std::string& name : state_.target->StagedNames()) {
            const Mark place = TargetDirectory::IsAsideName(name) ? PlaceOf(name) : Mark();
            const bool isMissing = !place.target.empty() && !IdOf(place.target);
            if (isMissing && state_.target->MoveToFreeName(name, place.target)) {
                Know(place);
            } else if (isMissing) {
                SA_LOGE("%{public}s can't be put back: %{public}s", place.target.c_str(), strerror(errno));
            }
        }
    }

    void ReopenTasks(TaskKind kind) VEXA_REQUIRES(state_.mutex)
    {
        const auto open = state_.store->Tasks().Select(kind, [](const Task& task) { return !task.IsEnded(); });
        for (const TaskRef& one : open) {
            Task task = *one;
            // The rename may have happened, and only the note of it may be lost.
            const bool isPlaced = task.subStatus == MIGRATE_SUB_PLACING && IdOf(task.target) == task.staged;
            if (isPlaced) {
                NotePlaced(state_, task);
            }
            task.status = isPlaced ? TaskStatus::FINISHED : TaskStatus::IDLE;
            task.subStatus = MIGRATE_SUB_NONE;
            state_.store->Save(task);
        }
        if (kind == TaskKind::MIGRATE && state_.IsUnderWay()) {
            SA_LOGI("a migration with %{public}zu open tasks goes on", open.size());
            state_.EndRunIfDone();
        }
    }

    // Moves aside what is left in staging, to be removed later. Marks of what is nowhere go.
    void CollectRubbish() VEXA_REQUIRES(state_.mutex)
    {
        for (const std::string& name : state_.target->StagedNames()) {
            // The only copy of a package may be there.
            if (TargetDirectory::IsAsideName(name) && !IsKnownAt(PlaceOf(name).target)) {
                SA_LOGW("%{public}s is left alone: nothing that replaces it is in its place", name.c_str());
                std::erase_if(marks_, [id = IdOf(name)](const Mark& mark) { return mark.id == id; });
            } else {
                MoveAway(state_, name);
            }
        }
        for (const Mark& mark : marks_) {
            if (IdOf(mark.target) != mark.id) {
                state_.target->RemoveMark(mark.id);
            }
        }
    }

    std::optional<FileId> IdOf(const std::string& name) const { return state_.target->IdOf(name); }

    // Returns a place without a target when its name is not known.
    Mark PlaceOf(const std::string& asideName) const VEXA_REQUIRES(state_.mutex)
    {
        const auto id = IdOf(asideName);
        const auto mark = std::find_if(marks_.begin(), marks_.end(), [&id](const Mark& one) { return one.id == id; });
        if (mark != marks_.end()) {
            return *mark;
        }
        for (const auto& [target, record] : state_.store->AllPlaced()) {
            if (record.id == id) {
                return {record.id, target, record.source};
            }
        }
        return {};
    }

    bool IsKnownAt(const std::string& target) const VEXA_REQUIRES(state_.mutex)
    {
        const Placed* const placed = state_.store->FindPlaced(target);
        return placed != nullptr && IdOf(target) == placed->id;
    }

    void Know(const Mark& mark) VEXA_REQUIRES(state_.mutex)
    {
        const Placed* const before = state_.store->FindPlaced(mark.target);
        if (before == nullptr || before->id != mark.id) {
            const Placed known{mark.source, mark.id, before != nullptr ? before->owner : -1};
            state_.store->SavePlaced(mark.target, &known);
        }
    }

    EngineState& state_;
    std::vector<Mark> marks_;
};

}  // namespace

void Recover(EngineState& state)
{
    Recovery(state).Run();
}

}  // namespace VEXA::UpdateEngine
