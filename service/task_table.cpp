// SPDX-License-Identifier: Apache-2.0
#include "task_table.h"

#include <algorithm>

namespace VEXA::UpdateEngine {

TaskRef TaskTable::Find(TaskKind kind, const std::string& source) const
{
    const auto found = Of(kind).bySource.find(source);
    return found != Of(kind).bySource.end() ? Find(found->second) : nullptr;
}

std::vector<TaskRef> TaskTable::Select(TaskKind kind, const std::function<bool(const Task&)>& isMeant) const
{
    std::vector<TaskRef> tasks;
    for (const auto& [id, task] : tasks_) {
        if (task->kind == kind && isMeant(*task)) {
            tasks.push_back(task);
        }
    }
    return tasks;
}

int64_t TaskTable::CountIn(MigrateStage stage) const
{
    const TaskSums& sums = Sums(stage == MigrateStage::RESTORE ? TaskKind::RESTORE : TaskKind::MIGRATE);
    return stage == MigrateStage::NONE ? sums.tasks : ValueOf(sums.inStage, stage);
}

TaskRef TaskTable::Put(uint32_t id, TaskRef task)
{
    TaskRef before = Find(id);
    if (before != nullptr) {
        Count(*before, -1);
        tasks_.erase(id);
    }
    if (task != nullptr) {
        Count(*task, 1);
        tasks_[id] = std::move(task);
    }
    return before;
}

void TaskTable::Count(const Task& task, int64_t sign)
{
    Kind& kind = kinds_[static_cast<size_t>(task.kind)];
    const bool isUnmeasured = task.totalBytes < 0 && !task.IsEnded();
    TaskSums& sums = kind.sums;
    sums.tasks += sign;
    sums.inStage[task.Stage()] += sign;
    sums.failed += task.status == TaskStatus::FAILED ? sign : 0;
    sums.unmeasured += isUnmeasured ? sign : 0;
    sums.bytes += sign * std::max<int64_t>(task.totalBytes, 0);
    sums.remainingBytes += sign * task.RemainingBytes();
    Order& order = isUnmeasured ? kind.unmeasured : kind.idle;
    const std::pair key(isUnmeasured ? 0 : -int64_t{task.priority}, task.id);
    if (sign < 0) {
        order.erase(key);
        kind.bySource.erase(task.source);
    } else {
        kind.bySource[task.source] = task.id;
        if (task.status == TaskStatus::IDLE) {
            order.insert(key);
        }
    }
}

}  // namespace VEXA::UpdateEngine
