// SPDX-License-Identifier: Apache-2.0
// Opening, recovery, and what the other parts of the engine share.
#include "migration_engine.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

#include "json_parse.h"
#include "move.h"
#include "plain_name.h"
#include "service_log.h"

namespace VEXA::UpdateEngine {

namespace {

constexpr std::string_view kOld = "-old";

// A name that StagingName or AsideName has made. Nothing else is removed.
bool IsStagingName(std::string_view name)
{
    if (name.substr(0, STAGING_PREFIX.size()) != STAGING_PREFIX) {
        return false;
    }
    name.remove_prefix(STAGING_PREFIX.size());
    if (name.size() > kOld.size() && name.substr(name.size() - kOld.size()) == kOld) {
        name.remove_suffix(kOld.size());
    }
    return !name.empty() && name.find_first_not_of("0123456789") == name.npos;
}

UniqueFd OpenDirectory(const std::string& path, const std::string& purpose, std::string& error)
{
    UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        error = purpose + ": " + strerror(errno);
    }
    return directory;
}

}  // namespace

BusinessError MakeError(int32_t number, const std::string& message)
{
    return {message, number, {}};
}

std::unique_ptr<MigrationEngine> MigrationEngine::Open(
    const EngineOptions& options, EngineListener& listener, std::string& error)
{
    UniqueFd source = OpenDirectory(options.source, options.source, error);
    UniqueFd target = source ? OpenDirectory(options.target, options.target, error) : UniqueFd();
    if (!target) {
        return nullptr;
    }
    const std::string file = options.stateFile.empty() ? options.target + "/.migrate-state.db" : options.stateFile;
    auto store = TaskStore::Open(file, error);
    if (store == nullptr) {
        return nullptr;
    }
    UniqueFd stateDirectory;
    if (!options.stateFile.empty()) {
        stateDirectory = OpenDirectory(std::filesystem::path(file).parent_path() / ".", file, error);
        if (!stateDirectory) {
            return nullptr;
        }
    }
    std::unique_ptr<MigrationEngine> engine(new MigrationEngine(
        options, listener, std::move(store), std::move(source), std::move(target), std::move(stateDirectory)));
    engine->Recover();
    return engine;
}

MigrationEngine::MigrationEngine(const EngineOptions& options, EngineListener& listener,
    std::unique_ptr<TaskStore> store, UniqueFd source, UniqueFd target, UniqueFd stateDirectory)
    : options_(options),
      listener_(listener),
      catalog_(options.source),
      source_(std::move(source)),
      target_(std::move(target)),
      stateDirectory_(std::move(stateDirectory)),
      store_(std::move(store))
{}

MigrationEngine::~MigrationEngine()
{
    Stop();
}

void MigrationEngine::Recover()
{
    MutexLock lock(mutex_);
    const auto open = store_->Select([](const Task& task) { return !task.IsEnded(); });
    auto transaction = store_->Begin(IfNotWritten::KEEP);
    for (const uint32_t id : open) {
        Task& task = *store_->Find(id);
        // The rename may have happened, and only its note been lost.
        if (task.subStatus == MIGRATE_SUB_PLACING && IdOf(task.target) == task.staged) {
            NotePlaced(task);
            task.status = TaskStatus::FINISHED;
        } else {
            PutBack(task);
            task.status = TaskStatus::IDLE;
            task.doneBytes = 0;
        }
        task.subStatus = MIGRATE_SUB_NONE;
        store_->Save(task);
    }
    if (State() == TaskStatus::RUNNING || State() == TaskStatus::PAUSED) {
        SA_LOGI("a migration with %{public}zu open tasks goes on", open.size());
        EndMigrationIfDone();
    }
    CollectRubbish();
    transaction.Commit();
}

void MigrationEngine::PutBack(const Task& task)
{
    const std::string aside = AsideName(task.id);
    const Placed* const before = store_->FindPlaced(task.target);
    if (before == nullptr || IdOf(aside) != before->id || IdOf(task.target)) {
        return;
    }
    if (!MoveToFreeName(target_.Get(), aside, task.target)) {
        SA_LOGE("%{public}s can't be put back: %{public}s", task.target.c_str(), strerror(errno));
    }
}

void MigrationEngine::CollectRubbish()
{
    UniqueFd again(openat(target_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(again ? fdopendir(again.Get()) : nullptr, &closedir);
    if (directory != nullptr) {
        again.Release();
    }
    for (const dirent* entry = directory != nullptr ? readdir(directory.get()) : nullptr; entry != nullptr;
         entry = readdir(directory.get())) {
        if (IsStagingName(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    for (const std::string& name : names) {
        const std::string aside = MoveAway(name);
        if (!aside.empty()) {
            rubbish_.push_back(aside);
        }
    }
}

std::string MigrationEngine::MoveAway(const std::string& name)
{
    for (;;) {
        const int64_t number = store_->Get(StateValue::NEXT_ID) + 1;
        store_->Set(StateValue::NEXT_ID, number);
        const std::string aside = StagingName(static_cast<uint32_t>(number));
        if (MoveToFreeName(target_.Get(), name, aside)) {
            return aside;
        }
        const int reason = errno;
        if (!IdOf(aside)) {
            SA_LOGE("%{public}s can't be moved aside: %{public}s", name.c_str(), strerror(reason));
            return {};
        }
    }
}

void MigrationEngine::Start()
{
    workers_.emplace_back([this] { Work(TaskKind::MIGRATE); });
    workers_.emplace_back([this] { Work(TaskKind::RESTORE); });
}

void MigrationEngine::Stop()
{
    {
        MutexLock lock(mutex_);
        stopping_ = true;
        changed_.NotifyAll();
    }
    for (std::thread& worker : workers_) {
        worker.join();
    }
    workers_.clear();
}

TaskStatus MigrationEngine::State() const
{
    return static_cast<TaskStatus>(store_->Get(StateValue::STATUS));
}

void MigrationEngine::SetState(TaskStatus state)
{
    store_->Set(StateValue::STATUS, static_cast<int64_t>(state));
}

TaskPauseReason MigrationEngine::PauseReason() const
{
    return static_cast<TaskPauseReason>(store_->Get(StateValue::PAUSE_REASON));
}

void MigrationEngine::Report(const Task& task)
{
    reported_ = Clock::now();
    if (task.kind == TaskKind::MIGRATE) {
        listener_.OnTask(task.AsProgress(PauseReason()));
    } else {
        listener_.OnRestore(task.AsRestoreEvent());
    }
}

bool MigrationEngine::Changed(const Task& task)
{
    const bool isWritten = store_->Save(task);
    Report(task);
    return isWritten;
}

void MigrationEngine::BeginRun()
{
    if (State() == TaskStatus::RUNNING || State() == TaskStatus::PAUSED) {
        return;
    }
    meter_.Restart();
    SetState(TaskStatus::RUNNING);
    store_->Set(StateValue::START_TIME, time(nullptr));
    store_->Set(StateValue::END_TIME, 0);
}

void MigrationEngine::EndMigrationIfDone()
{
    bool hasTask = false;
    bool hasFailed = false;
    for (const auto& [id, task] : store_->Tasks()) {
        if (task.kind != TaskKind::MIGRATE) {
            continue;
        }
        if (!task.IsEnded()) {
            return;
        }
        hasTask = true;
        hasFailed = hasFailed || task.status == TaskStatus::FAILED;
    }
    SetState(!hasTask ? TaskStatus::IDLE : hasFailed ? TaskStatus::FAILED : TaskStatus::FINISHED);
    store_->Set(StateValue::END_TIME, time(nullptr));
}

std::optional<FileId> MigrationEngine::IdOf(const std::string& targetName) const
{
    struct statx status = {};
    if (statx(target_.Get(), targetName.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status) != 0) {
        return std::nullopt;
    }
    constexpr int64_t kNanoseconds = 1000000000;
    FileId id;
    id.device = static_cast<int64_t>(makedev(status.stx_dev_major, status.stx_dev_minor));
    id.inode = static_cast<int64_t>(status.stx_ino);
    if ((status.stx_mask & STATX_BTIME) != 0) {
        id.birth = status.stx_btime.tv_sec * kNanoseconds + status.stx_btime.tv_nsec;
    }
    return id;
}

bool MigrationEngine::IsPlaced(const std::string& target, const std::string& source) const
{
    const Placed* const placed = store_->FindPlaced(target);
    return placed != nullptr && placed->source == source && IdOf(target) == placed->id;
}

ErrorInfo MigrationEngine::FaultOf(const Package& package) const
{
    const std::string& target = package.manifest.target;
    if (package.fault.code == 0 && IdOf(target) && !IsPlaced(target, package.directory)) {
        return {MIGRATE_ERROR_TARGET, "the target has something else of that name", false};
    }
    return package.fault;
}

PresetChoices MigrationEngine::Choices() const
{
    PresetChoices choices;
    JsonParse::JsonStrToStruct(store_->Preset(), choices);
    return choices;
}

std::string MigrationEngine::StagingName(uint32_t id)
{
    return std::string(STAGING_PREFIX) + std::to_string(id);
}

std::string MigrationEngine::AsideName(uint32_t id)
{
    return StagingName(id) + std::string(kOld);
}

}  // namespace VEXA::UpdateEngine
