// SPDX-License-Identifier: Apache-2.0
#include "migration_queries.h"

#include <algorithm>
#include <set>

#include "engine_errors.h"
#include "tree_copier.h"

namespace VEXA::UpdateEngine {

MigrateProgress MigrationQueries::Progress() const
{
    constexpr double kAll = 100;
    const TaskTable& tasks = state_.store->Tasks();
    const TaskSums& sums = tasks.Sums(TaskKind::MIGRATE);
    const bool hasOpen = tasks.CountIn(MigrateStage::FINISH) < sums.tasks;
    const TaskStatus status = state_.Status();
    MigrateProgress progress;
    progress.status = static_cast<int32_t>(status);
    if (hasOpen && sums.unmeasured == 0 && sums.bytes > 0) {
        // 100 % of the whole is reached with the last package's end, not with its last byte.
        const double part = static_cast<double>(sums.bytes - sums.remainingBytes) / static_cast<double>(sums.bytes);
        progress.percent = std::min(static_cast<uint32_t>(part * kAll), static_cast<uint32_t>(kAll) - 1);
    } else if (!hasOpen && status != TaskStatus::IDLE) {
        progress.percent = static_cast<uint32_t>(kAll);
    }
    progress.remainingTime = state_.meter.SecondsFor(static_cast<uint64_t>(sums.remainingBytes));
    progress.suspendReason = status == TaskStatus::PAUSED ? static_cast<int32_t>(state_.PauseReason()) : 0;
    progress.requiredTraffic = sums.remainingBytes;
    progress.requiredMigrationSpace = sums.remainingBytes;
    return progress;
}

MigrateStatus MigrationQueries::GetStatus(MigrateStage stage) const
{
    MutexLock lock(state_.mutex);
    MigrateStatus status;
    status.isTaskExist = state_.store->Tasks().CountIn(stage) > 0;
    status.status = static_cast<int32_t>(state_.Status());
    return status;
}

MigrateInfo MigrationQueries::GetInfo(MigrateStage stage) const
{
    MigrateInfo info;
    std::vector<TaskRef> tasks;
    TaskPauseReason reason = TaskPauseReason::NONE;
    {
        MutexLock lock(state_.mutex);
        info.migrateProgress = Progress();
        for (const auto& [id, task] : state_.store->Tasks().ById()) {
            tasks.push_back(task);
        }
        reason = state_.PauseReason();
    }
    uint32_t index = 0;
    for (const TaskRef& task : tasks) {
        if (stage == MigrateStage::NONE ? task->kind == TaskKind::MIGRATE : task->Stage() == stage) {
            info.taskInfos.push_back(task->AsInfo(reason, index));
        }
        index++;
    }
    return info;
}

void MigrationQueries::GetProgress(MigrateStage& stage, MigrateProgress& progress) const
{
    MutexLock lock(state_.mutex);
    const TaskTable& tasks = state_.store->Tasks();
    progress = Progress();
    stage = state_.Status() == TaskStatus::IDLE         ? MigrateStage::NONE
            : !state_.IsUnderWay()                      ? MigrateStage::FINISH
            : tasks.CountIn(MigrateStage::INSTALL) > 0  ? MigrateStage::INSTALL
            : tasks.CountIn(MigrateStage::DOWNLOAD) > 0 ? MigrateStage::DOWNLOAD
                                                        : MigrateStage::PREPARE;
}

void MigrationQueries::IntroduceTasks(const std::function<void(std::vector<TaskProgress>)>& receive) const
{
    MutexLock lock(state_.mutex);
    std::vector<TaskProgress> tasks;
    for (const TaskRef& task : state_.store->Tasks().Select(TaskKind::MIGRATE)) {
        tasks.push_back(task->AsProgress(state_.PauseReason()));
    }
    receive(std::move(tasks));
}

MigrationResult MigrationQueries::GetResult() const
{
    MigrationResult result;
    std::vector<TaskRef> tasks;
    {
        MutexLock lock(state_.mutex);
        result.status = static_cast<int32_t>(state_.Status());
        result.startTime = state_.store->Get(StateValue::START_TIME);
        result.endTime = state_.store->Get(StateValue::END_TIME);
        tasks = state_.store->Tasks().Select(TaskKind::MIGRATE);
    }
    for (const TaskRef& task : tasks) {
        const bool isFinished = task->status == TaskStatus::FINISHED;
        result.succeeded += isFinished ? 1 : 0;
        result.failed += task->status == TaskStatus::FAILED ? 1 : 0;
        result.bytes += isFinished ? task->doneBytes : 0;
        result.packages.push_back({task->source, task->target, static_cast<int32_t>(task->status), task->doneBytes,
            task->files, task->error.code, task->error.reason});
    }
    return result;
}

BusinessError MigrationQueries::ForEach(const std::function<void(const KnownPackage&)>& visit) const
{
    std::vector<KnownPackage> packages;
    BusinessError fault = state_.ReadPackages(packages);
    std::for_each(packages.begin(), packages.end(), visit);
    return fault;
}

PresetChoices MigrationQueries::Choices() const
{
    MutexLock lock(state_.mutex);
    return state_.Choices();
}

BusinessError MigrationQueries::GetPackages(std::vector<PakMigrateInfo>& packages) const
{
    return ForEach([&packages](const KnownPackage& one) {
        TaskStatus status = one.isPlaced ? TaskStatus::FINISHED : TaskStatus::IDLE;
        status = one.task != nullptr ? one.task->status : status;
        const std::string& target = one.task != nullptr ? one.task->target : one.package->manifest.target;
        packages.push_back({one.package->directory, target, static_cast<int32_t>(status)});
    });
}

BusinessError MigrationQueries::GetBundleNames(std::vector<std::string>& names) const
{
    return ForEach([&names](const KnownPackage& one) {
        if (one.CanBeMigrated()) {
            names.push_back(one.package->manifest.bundleName);
        }
    });
}

BusinessError MigrationQueries::GetUsers(std::vector<MigrationUser>& users) const
{
    std::set<std::pair<int32_t, int32_t>> known;
    return ForEach([&, choices = Choices()](const KnownPackage& one) {
        const int32_t user = one.package->manifest.user;
        const auto chosen = std::ranges::find(choices.users, user, &MigrationUser::sourceUser);
        const int32_t target = chosen != choices.users.end() ? chosen->targetUser : one.package->manifest.targetUser;
        if (known.emplace(user, target).second) {
            users.push_back({user, target});
        }
    });
}

BusinessError MigrationQueries::GetModulePolicies(
    bool isOnlyPlaced, const std::vector<ModuleInfo>& modules, std::vector<ModuleMigrationPolicy>& policies) const
{
    std::set<std::pair<int32_t, std::string>> all;
    std::set<std::pair<int32_t, std::string>> meant;
    std::vector<ModuleInfo> asked = modules;
    BusinessError fault = ForEach([&](const KnownPackage& one) {
        const bool isMeant = isOnlyPlaced ? one.isPlaced : one.CanBeMigrated();
        for (const ModuleInfo& module : one.package->manifest.modules) {
            if (modules.empty() && all.emplace(module.type, module.id).second) {
                asked.push_back(module);
            }
            if (isMeant) {
                meant.emplace(module.type, module.id);
            }
        }
    });
    for (const ModuleInfo& module : asked) {
        const size_t count = meant.count({module.type, module.id});
        policies.push_back({module, std::vector(count, module)});
    }
    return fault;
}

BusinessError MigrationQueries::GetDataSize(int64_t& bytes) const
{
    // Beside a migration only those of its trees are read that it has not measured yet.
    std::vector<TaskRef> tasks;
    {
        MutexLock lock(state_.mutex);
        const auto isMeant = [](const Task& task) { return task.totalBytes >= 0 || !task.IsEnded(); };
        tasks = state_.IsUnderWay() ? state_.store->Tasks().Select(TaskKind::MIGRATE, isMeant) : tasks;
    }
    const auto addTask = [&tasks, choices = Choices()](const KnownPackage& one) {
        if (one.CanBeMigrated() && one.fault.code == 0 && !one.package->IsOneOf(choices.exclude)) {
            tasks.push_back(std::make_shared<const Task>(one.MakeTask()));
        }
    };
    BusinessError fault = tasks.empty() ? ForEach(addTask) : BusinessError();
    bytes = 0;
    std::vector<ErrorMessage> faults;
    const auto goOn = [this] { return !state_.isStopping; };
    for (const TaskRef& task : tasks) {
        TreeSize size;
        const bool isMeasured = task->totalBytes >= 0;
        const ErrorInfo reason =
            isMeasured ? ErrorInfo() : MeasureTree(state_.source.Get(), task->source, state_.target->Fd(), goOn, size);
        bytes += isMeasured ? task->totalBytes : static_cast<int64_t>(size.bytes);
        if (reason.code != 0) {
            faults.push_back({reason.code, task->source + ": " + reason.reason});
        }
    }
    return fault.errorNum != 0 ? fault : SomePackages("some packages can't be measured", faults);
}

BusinessError MigrationQueries::GetPackageStatus(const Name& name, ReserveMigrationStatus& status) const
{
    {
        MutexLock lock(state_.mutex);
        const auto called = [&name](const Task& task) { return task.IsCalled(name); };
        const auto tasks = state_.store->Tasks().Select(TaskKind::MIGRATE, called);
        if (!tasks.empty()) {
            status = {static_cast<int32_t>(tasks[0]->status), tasks[0]->error};
            return {};
        }
    }
    KnownPackage found;
    if (BusinessError fault = state_.ReadPackage(name, found); fault.errorNum != 0) {
        return fault;
    }
    status.status = static_cast<int32_t>(found.isPlaced ? TaskStatus::FINISHED : TaskStatus::IDLE);
    return {};
}

}  // namespace VEXA::UpdateEngine
