// SPDX-License-Identifier: Apache-2.0
// What the engine tells of the source, the target and the migration.
#include <algorithm>
#include <set>

#include "engine_errors.h"
#include "migration_engine.h"

namespace VEXA::UpdateEngine {

namespace {

bool HasModule(const Package& package, const ModuleInfo& module)
{
    const auto& modules = package.manifest.modules;
    return std::any_of(modules.begin(), modules.end(),
        [&](const ModuleInfo& other) { return other.type == module.type && other.id == module.id; });
}

std::vector<ModuleInfo> AllModules(const std::vector<Package>& packages)
{
    std::vector<ModuleInfo> modules;
    std::set<std::pair<int32_t, std::string>> known;
    for (const Package& package : packages) {
        for (const ModuleInfo& module : package.manifest.modules) {
            if (known.emplace(module.type, module.id).second) {
                modules.push_back(module);
            }
        }
    }
    return modules;
}

int32_t TargetUser(const Package& package, const PresetChoices& choices)
{
    for (const MigrationUser& user : choices.users) {
        if (user.sourceUser == package.manifest.user) {
            return user.targetUser;
        }
    }
    return package.manifest.targetUser;
}

}  // namespace

MigrateStage MigrationEngine::CurrentStage() const
{
    const TaskStatus state = State();
    if (state != TaskStatus::RUNNING && state != TaskStatus::PAUSED) {
        return state == TaskStatus::IDLE ? MigrateStage::NONE : MigrateStage::FINISH;
    }
    MigrateStage stage = MigrateStage::PREPARE;
    for (const auto& [id, task] : store_->Tasks()) {
        if (IsInStage(task, MigrateStage::INSTALL)) {
            return MigrateStage::INSTALL;
        }
        if (IsInStage(task, MigrateStage::DOWNLOAD)) {
            stage = MigrateStage::DOWNLOAD;
        }
    }
    return stage;
}

bool MigrationEngine::IsInStage(const Task& task, MigrateStage stage) const
{
    if (task.kind == TaskKind::RESTORE) {
        return stage == MigrateStage::RESTORE;
    }
    switch (stage) {
        case MigrateStage::NONE:
            return true;
        case MigrateStage::PREPARE:
            return task.status == TaskStatus::IDLE;
        case MigrateStage::DOWNLOAD:
            return task.subStatus == MIGRATE_SUB_COPYING;
        case MigrateStage::INSTALL:
            return task.subStatus == MIGRATE_SUB_PLACING;
        case MigrateStage::FINISH:
            return task.IsEnded();
        default:
            return false;
    }
}

MigrateProgress MigrationEngine::Progress() const
{
    constexpr double kAll = 100;
    int64_t total = 0;
    int64_t remaining = 0;
    bool isMeasured = true;
    bool hasOpen = false;
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind != TaskKind::MIGRATE) {
            continue;
        }
        hasOpen = hasOpen || !task.IsEnded();
        isMeasured = isMeasured && (task.IsEnded() || task.totalBytes >= 0);
        total += std::max<int64_t>(task.totalBytes, 0);
        remaining += task.RemainingBytes();
    }
    MigrateProgress progress;
    progress.status = static_cast<int32_t>(State());
    if (hasOpen && isMeasured && total > 0) {
        // The whole is reached with the last package's end, not with its last byte.
        const double part = static_cast<double>(total - remaining) / static_cast<double>(total);
        progress.percent = std::min(static_cast<uint32_t>(part * kAll), static_cast<uint32_t>(kAll) - 1);
    } else if (!hasOpen && State() != TaskStatus::IDLE) {
        progress.percent = static_cast<uint32_t>(kAll);
    }
    progress.remainingTime = meter_.SecondsFor(static_cast<uint64_t>(remaining));
    progress.suspendReason = State() == TaskStatus::PAUSED ? static_cast<int32_t>(PauseReason()) : 0;
    progress.requiredTraffic = remaining;
    progress.requiredMigrationSpace = remaining;
    return progress;
}

MigrateStatus MigrationEngine::GetStatus(MigrateStage stage) const
{
    MutexLock lock(mutex_);
    MigrateStatus status;
    for (const auto& [id, task] : store_->Tasks()) {
        status.isTaskExist = status.isTaskExist || IsInStage(task, stage);
    }
    status.status = static_cast<int32_t>(State());
    return status;
}

MigrateInfo MigrationEngine::GetInfo(MigrateStage stage) const
{
    MutexLock lock(mutex_);
    MigrateInfo info;
    info.migrateProgress = Progress();
    uint32_t index = 0;
    for (const auto& [id, task] : store_->Tasks()) {
        if (IsInStage(task, stage)) {
            info.taskInfos.push_back(task.AsInfo(PauseReason(), index));
        }
        index++;
    }
    return info;
}

void MigrationEngine::GetProgress(MigrateStage& stage, MigrateProgress& progress) const
{
    MutexLock lock(mutex_);
    stage = CurrentStage();
    progress = Progress();
}

void MigrationEngine::IntroduceTasks(const std::function<void(std::vector<TaskProgress>)>& receive) const
{
    MutexLock lock(mutex_);
    std::vector<TaskProgress> tasks;
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind == TaskKind::MIGRATE) {
            tasks.push_back(task.AsProgress(PauseReason()));
        }
    }
    receive(std::move(tasks));
}

MigrationResult MigrationEngine::GetResult() const
{
    MutexLock lock(mutex_);
    MigrationResult result;
    result.status = static_cast<int32_t>(State());
    result.startTime = store_->Get(StateValue::START_TIME);
    result.endTime = store_->Get(StateValue::END_TIME);
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind != TaskKind::MIGRATE) {
            continue;
        }
        const bool isFinished = task.status == TaskStatus::FINISHED;
        result.succeeded += isFinished ? 1 : 0;
        result.failed += task.status == TaskStatus::FAILED ? 1 : 0;
        result.bytes += isFinished ? task.doneBytes : 0;
        result.packages.push_back({task.source, task.target, static_cast<int32_t>(task.status), task.doneBytes,
            task.files, task.error.code, task.error.reason});
    }
    return result;
}

BusinessError MigrationEngine::GetPackages(std::vector<PakMigrateInfo>& packages) const
{
    std::vector<Package> found;
    if (!catalog_.Read(found)) {
        return SourceError();
    }
    MutexLock lock(mutex_);
    for (const Package& package : found) {
        std::string target = package.manifest.target;
        TaskStatus status = IsPlaced(target, package.directory) ? TaskStatus::FINISHED : TaskStatus::IDLE;
        const TaskKind kind = package.manifest.reserved ? TaskKind::RESTORE : TaskKind::MIGRATE;
        if (const Task* const task = store_->Find(kind, package.directory)) {
            target = task->target;
            status = task->status;
        }
        packages.push_back({package.directory, target, static_cast<int32_t>(status)});
    }
    return {};
}

BusinessError MigrationEngine::GetBundleNames(std::vector<std::string>& names) const
{
    std::vector<Package> found;
    if (!catalog_.Read(found)) {
        return SourceError();
    }
    for (const Package& package : found) {
        if (!package.manifest.reserved && package.fault.code == 0) {
            names.push_back(package.manifest.bundleName);
        }
    }
    return {};
}

BusinessError MigrationEngine::GetUsers(std::vector<MigrationUser>& users) const
{
    std::vector<Package> found;
    if (!catalog_.Read(found)) {
        return SourceError();
    }
    MutexLock lock(mutex_);
    const PresetChoices choices = Choices();
    std::set<std::pair<int32_t, int32_t>> known;
    for (const Package& package : found) {
        const int32_t target = TargetUser(package, choices);
        if (known.emplace(package.manifest.user, target).second) {
            users.push_back({package.manifest.user, target});
        }
    }
    return {};
}

BusinessError MigrationEngine::GetModulePolicies(
    bool isOnlyPlaced, const std::vector<ModuleInfo>& modules, std::vector<ModuleMigrationPolicy>& policies) const
{
    std::vector<Package> found;
    if (!catalog_.Read(found)) {
        return SourceError();
    }
    MutexLock lock(mutex_);
    for (const ModuleInfo& module : modules.empty() ? AllModules(found) : modules) {
        ModuleMigrationPolicy policy;
        policy.sourceModuleInfo = module;
        for (const Package& package : found) {
            const bool isMeant = isOnlyPlaced ? IsPlaced(package.manifest.target, package.directory)
                                              : !package.manifest.reserved && package.fault.code == 0;
            if (isMeant && HasModule(package, module)) {
                policy.targetModuleInfos.push_back(module);
                break;
            }
        }
        policies.push_back(policy);
    }
    return {};
}

BusinessError MigrationEngine::GetDataSize(int64_t& bytes) const
{
    std::vector<Package> found;
    if (!catalog_.Read(found)) {
        return SourceError();
    }
    PresetChoices choices;
    {
        MutexLock lock(mutex_);
        choices = Choices();
    }
    BusinessError error;
    TreeSize size;
    for (const Package& package : found) {
        if (package.manifest.reserved || package.fault.code != 0 || package.IsOneOf(choices.exclude)) {
            continue;
        }
        const ErrorInfo fault = MeasureTree(
            source_.Get(), package.directory, target_.Get(), [this] { return !IsStopping(); }, size);
        if (fault.code != 0) {
            error.data.push_back({fault.code, package.directory + ": " + fault.reason});
        }
    }
    bytes = static_cast<int64_t>(size.bytes);
    if (!error.data.empty()) {
        error.errorNum = MIGRATE_ERROR_SOME_PACKAGES;
        error.message = "some packages can't be measured";
    }
    return error;
}

BusinessError MigrationEngine::GetPackageStatus(const Name& name, ReserveMigrationStatus& status) const
{
    {
        MutexLock lock(mutex_);
        for (const auto& [id, task] : store_->Tasks()) {
            if (task.kind == TaskKind::MIGRATE && task.IsCalled(name)) {
                status = {static_cast<int32_t>(task.status), task.error};
                return {};
            }
        }
    }
    std::vector<Package> found;
    if (!catalog_.Read(found)) {
        return SourceError();
    }
    const Package* const package = PackageCatalog::Find(found, name);
    if (package == nullptr) {
        return NoSuchPackage();
    }
    MutexLock lock(mutex_);
    const bool isPlaced = IsPlaced(package->manifest.target, package->directory);
    status.status = static_cast<int32_t>(isPlaced ? TaskStatus::FINISHED : TaskStatus::IDLE);
    return {};
}

}  // namespace VEXA::UpdateEngine
