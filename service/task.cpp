// SPDX-License-Identifier: Apache-2.0
#include "task.h"

#include <algorithm>

namespace VEXA::UpdateEngine {

MigrateStage Task::Stage() const
{
    return kind == TaskKind::RESTORE          ? MigrateStage::RESTORE
           : IsEnded()                        ? MigrateStage::FINISH
           : status == TaskStatus::IDLE       ? MigrateStage::PREPARE
           : subStatus == MIGRATE_SUB_PLACING ? MigrateStage::INSTALL
                                              : MigrateStage::DOWNLOAD;
}

int32_t Task::Percent() const
{
    constexpr int32_t kAll = 100;
    if (status == TaskStatus::FINISHED) {
        return kAll;
    }
    if (totalBytes <= 0) {
        return 0;
    }
    const double part = static_cast<double>(doneBytes) / static_cast<double>(totalBytes);
    // 100 % is reached when the package is in its place.
    return std::clamp(static_cast<int32_t>(part * kAll), 0, kAll - 1);
}

TaskProgress Task::AsProgress(TaskPauseReason pauseReason) const
{
    return {.id = id,
        .status = static_cast<int32_t>(status),
        .subStatus = subStatus,
        .pauseReason = status == TaskStatus::PAUSED ? static_cast<int32_t>(pauseReason) : 0,
        .requiredTraffic = RemainingBytes(),
        .progress = Percent()};
}

TaskInfo Task::AsInfo(TaskPauseReason pauseReason, uint32_t index) const
{
    TaskInfo info;
    info.id = id;
    info.status = status;
    info.subStatus = subStatus;
    info.type = TaskType::APP;
    info.source = source;
    info.target = target;
    info.displayPolicy.needDisplay = "true";
    info.displayPolicy.displayBundleName = app.packageName;
    info.pauseReason = status == TaskStatus::PAUSED ? pauseReason : TaskPauseReason::NONE;
    info.requiredTraffic = RemainingBytes();
    info.progress = Percent();
    info.index = index;
    info.userId = user;
    return info;
}

}  // namespace VEXA::UpdateEngine
