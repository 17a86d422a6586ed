// SPDX-License-Identifier: Apache-2.0
#include "task_worker.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <utility>

#include "placement.h"
#include "service_limits.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

namespace {

class TaskWorker {
public:
    TaskWorker(EngineState& state, TaskKind kind) : state_(state), kind_(kind), throttle_(state.options.bytesPerSecond)
    {}

    void Run()
    {
        while (!state_.isStopping) {
            TaskRef unmeasured;
            TaskRef idle;
            std::vector<std::string> rubbish;
            {
                MutexLock lock(state_.mutex);
                turn_ = state_.turn;
                unmeasured = state_.store->Tasks().NextUnmeasured(kind_);
                if (kind_ == TaskKind::RESTORE || state_.Status() == TaskStatus::RUNNING) {
                    idle = state_.store->Tasks().NextIdle(kind_);
                }
                if (kind_ == TaskKind::RESTORE) {
                    rubbish = std::exchange(state_.rubbish, {});
                }
                if (unmeasured == nullptr && idle == nullptr && rubbish.empty()) {
                    state_.changed.WaitFor(
                        state_.mutex, kIdle, [this] { return state_.isStopping || state_.turn != turn_; });
                    continue;
                }
            }
            for (const std::string& name : rubbish) {
                RemoveStaged(state_, name);
            }
            if (unmeasured != nullptr) {
                Measure(*unmeasured);
            } else if (idle != nullptr) {
                RunTask(*idle);
            }
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    // Sizes come first, so that percentages are those of the whole.
    void Measure(const Task& task)
    {
        TreeSize size;
        const auto goOn = [this, id = task.id] {
            if (state_.turn == turn_) {
                return true;
            }
            MutexLock lock(state_.mutex);
            turn_ = state_.turn;
            return state_.MayGoOn(id);
        };
        const ErrorInfo fault = MeasureTree(state_.source.Get(), task.source, state_.target->Fd(), goOn, size);
        {
            StateChange change(state_, IfNotWritten::KEEP);
            if (!state_.MayGoOn(task.id)) {
                return;
            }
            Task measured = *state_.store->Tasks().Find(task.id);
            measured.totalBytes = static_cast<int64_t>(size.bytes);
            measured.files = static_cast<int64_t>(size.files);
            measured.space = static_cast<int64_t>(size.space);
            state_.store->Save(measured);
            change.Commit();
        }
        if (fault.code != 0) {
            End(task.id, fault);
        }
    }

    void RunTask(const Task& task)
    {
        copied_ = 0;
        metered_ = 0;
        {
            const StateChange change(state_, IfNotWritten::KEEP);
            const TaskRef now = state_.store->Tasks().Find(task.id);
            const bool isPaused = kind_ == TaskKind::MIGRATE && state_.Status() != TaskStatus::RUNNING;
            if (now == nullptr || now->status != TaskStatus::IDLE || isPaused) {
                return;
            }
            Task running = *now;
            running.status = TaskStatus::RUNNING;
            running.subStatus = MIGRATE_SUB_COPYING;
            state_.store->Keep(running);
            state_.Report(running);
        }
        CopiedTree copied;
        ErrorInfo fault = Copy(task, copied);
        if (fault.code == 0) {
            fault = Place(state_, task, copied);
        } else {
            RemoveStaged(state_, TargetDirectory::StagingName(task.id));
        }
        if (fault.code == 0) {
            fault.reason = copied.lost;
        }
        End(task.id, fault);
    }

    ErrorInfo Copy(const Task& task, CopiedTree& copied)
    {
        struct statvfs disk = {};
        if (fstatvfs(state_.target->Fd(), &disk) == 0 &&
            static_cast<uint64_t>(task.space) / disk.f_frsize > static_cast<uint64_t>(disk.f_bavail)) {
            return {MIGRATE_ERROR_NO_SPACE, "the target has no room for it", true};
        }
        CopyControl control;
        control.pieceBytes = throttle_.PieceBytes();
        control.syncsFew = state_.options.sync && task.files <= static_cast<int64_t>(kMostSynced);
        control.advance = [this, id = task.id](uint64_t bytes) { return Advance(id, bytes); };
        return CopyTree(state_.source.Get(), task.source, state_.target->Fd(), TargetDirectory::StagingName(task.id),
            control, copied);
    }

    // Hears of a copy's bytes; false ends the copy. Takes the lock only when there may be something to do or hear of.
    bool Advance(uint32_t id, uint64_t bytes)
    {
        copied_ += bytes;
        const auto now = Clock::now();
        const bool isTimeToTell = bytes > 0 && now - told_ >= kReportInterval;
        if (!throttle_.IsLimited() && !isTimeToTell && state_.turn == turn_) {
            return true;
        }
        if (isTimeToTell) {
            TellProgress(id, now);
        }
        MutexLock lock(state_.mutex);
        turn_ = state_.turn;
        if (throttle_.IsLimited()) {
            state_.changed.WaitUntil(state_.mutex, throttle_.Spend(bytes, now),
                [this, id]() VEXA_REQUIRES(state_.mutex) { return !state_.MayGoOn(id); });
        }
        while (kind_ == TaskKind::MIGRATE && state_.Status() == TaskStatus::PAUSED && state_.MayGoOn(id)) {
            state_.changed.WaitFor(state_.mutex, kIdle, [this, id]() VEXA_REQUIRES(state_.mutex) {
                return state_.Status() != TaskStatus::PAUSED || !state_.MayGoOn(id);
            });
        }
        return state_.MayGoOn(id);
    }

    // Bytes that are copied a second time, after a restart or because a file has changed, count once. Clients are told
    // only of progress that the next start will know too.
    void TellProgress(uint32_t id, Clock::time_point now)
    {
        told_ = now;
        StateChange change(state_, IfNotWritten::KEEP);
        const TaskRef task = state_.store->Tasks().Find(id);
        if (task == nullptr) {
            return;
        }
        Task further = *task;
        const auto most = std::max(task->doneBytes, task->totalBytes);
        further.doneBytes = std::clamp(static_cast<int64_t>(copied_), task->doneBytes, most);
        state_.store->Save(further);
        change.Commit();
        if (kind_ == TaskKind::MIGRATE) {
            state_.meter.Add(copied_ - std::exchange(metered_, copied_), now);
            state_.Report(further);
        }
    }

    void End(uint32_t id, const ErrorInfo& fault)
    {
        StateChange change(state_, IfNotWritten::KEEP);
        if (!state_.MayGoOn(id)) {
            return;
        }
        Task task = *state_.store->Tasks().Find(id);
        task.status = fault.code == 0 ? TaskStatus::FINISHED : TaskStatus::FAILED;
        task.subStatus = MIGRATE_SUB_NONE;
        task.error = fault;
        if (fault.code != 0) {
            SA_LOGE(
                "%{public}s failed with %{public}d: %{public}s", task.source.c_str(), fault.code, fault.reason.c_str());
        } else {
            SA_LOGI("%{public}s is in its place", task.source.c_str());
        }
        state_.store->Save(task);
        if (kind_ == TaskKind::MIGRATE) {
            state_.meter.Add(copied_ - std::exchange(metered_, copied_), Clock::now());
            if (fault.code != 0 && state_.store->Get(StateValue::POLICY) == MIGRATE_POLICY_STOP) {
                StopTheRest();
            }
            state_.EndRunIfDone();
        }
        change.Commit();
        // This comes last, so that a client that hears of the last task's end finds the migration ended.
        state_.Report(task);
    }

    void StopTheRest() VEXA_REQUIRES(state_.mutex)
    {
        const auto waiting = state_.store->Tasks().Select(
            TaskKind::MIGRATE, [](const Task& task) { return task.status == TaskStatus::IDLE; });
        for (const TaskRef& one : waiting) {
            Task task = *one;
            task.status = TaskStatus::FAILED;
            task.error = {MIGRATE_ERROR_STOPPED, "another package failed before", true};
            state_.store->Save(task);
            state_.Report(task);
        }
    }

    EngineState& state_;
    const TaskKind kind_;
    Throttle throttle_;
    uint32_t turn_ = 0;       // whatever has been changed by then has been looked at
    uint64_t copied_ = 0;     // bytes of the task in hand
    uint64_t metered_ = 0;    // of these, those that the meter knows
    Clock::time_point told_;  // when progress was told last
};

}  // namespace

void RunTasks(EngineState& state, TaskKind kind)
{
    TaskWorker(state, kind).Run();
}

}  // namespace VEXA::UpdateEngine
