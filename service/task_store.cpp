// SPDX-License-Identifier: Apache-2.0
#include "task_store.h"

#include <utility>

#include "json_parse.h"
#include "json_text.h"

namespace VEXA::UpdateEngine {

namespace {

// A change of the tables needs a new name for the file's version and a way from the old one.
constexpr int64_t kVersion = 1;
constexpr char kTables[] =
    "CREATE TABLE IF NOT EXISTS task (id INTEGER PRIMARY KEY, kind, source, target, app, user, status, sub_status,"
    " error_code, error_reason, can_retry, total_bytes, done_bytes, files, priority, device, inode, birth);"
    "CREATE TABLE IF NOT EXISTS placed (target PRIMARY KEY, source, bundle_name, device, inode, birth, owner);"
    "CREATE TABLE IF NOT EXISTS value (key INTEGER PRIMARY KEY, value);"
    "CREATE TABLE IF NOT EXISTS priority (source PRIMARY KEY, value);"
    "CREATE TABLE IF NOT EXISTS preset (id INTEGER PRIMARY KEY, text);"
    "PRAGMA user_version = 1;";

int64_t Wide(TaskKind value)
{
    return static_cast<int64_t>(value);
}

}  // namespace

std::unique_ptr<TaskStore> TaskStore::Open(const std::string& path, std::string& error)
{
    auto database = Database::Open(path, error);
    if (database == nullptr) {
        return nullptr;
    }
    std::unique_ptr<TaskStore> store(new TaskStore(std::move(database)));
    if (!store->Load()) {
        error = path + ": is not the service's state, or of another version";
        return nullptr;
    }
    return store;
}

bool TaskStore::Load()
{
    auto version = database_->Prepare("PRAGMA user_version");
    const int64_t found = version.Step() ? version.Int() : -1;
    version.Run();
    if ((found != 0 && found != kVersion) || !database_->Execute(kTables)) {
        return false;
    }
    LoadTasks();
    auto placed = database_->Prepare("SELECT target, source, bundle_name, device, inode, birth, owner FROM placed");
    while (placed.Step()) {
        const std::string target = placed.Text();
        Placed& record = placed_[target];
        record.source = placed.Text();
        record.bundleName = placed.Text();
        record.id.device = placed.Int();
        record.id.inode = placed.Int();
        record.id.birth = placed.Int();
        record.owner = placed.Int();
    }
    auto values = database_->Prepare("SELECT key, value FROM value");
    while (values.Step()) {
        const int64_t key = values.Int();
        values_[key] = values.Int();
    }
    auto priorities = database_->Prepare("SELECT source, value FROM priority");
    while (priorities.Step()) {
        const std::string source = priorities.Text();
        priorities_[source] = static_cast<int32_t>(priorities.Int());
    }
    auto preset = database_->Prepare("SELECT text FROM preset");
    preset_ = preset.Step() ? preset.Text() : std::string();
    return true;
}

void TaskStore::LoadTasks()
{
    auto rows = database_->Prepare(
        "SELECT id, kind, source, target, app, user, status, sub_status, error_code, error_reason, can_retry,"
        " total_bytes, done_bytes, files, priority, device, inode, birth FROM task");
    while (rows.Step()) {
        Task task;
        task.id = static_cast<uint32_t>(rows.Int());
        task.kind = static_cast<TaskKind>(rows.Int());
        task.source = rows.Text();
        task.target = rows.Text();
        JsonParse::JsonStrToStruct(rows.Text(), task.app);
        task.user = static_cast<int32_t>(rows.Int());
        task.status = static_cast<TaskStatus>(rows.Int());
        task.subStatus = static_cast<uint32_t>(rows.Int());
        task.error.code = static_cast<int32_t>(rows.Int());
        task.error.reason = rows.Text();
        task.error.canRetry = rows.Int() != 0;
        task.totalBytes = rows.Int();
        task.doneBytes = rows.Int();
        task.files = rows.Int();
        task.priority = static_cast<int32_t>(rows.Int());
        task.staged.device = rows.Int();
        task.staged.inode = rows.Int();
        task.staged.birth = rows.Int();
        tasks_[task.id] = task;
    }
}

Task* TaskStore::Find(uint32_t id)
{
    const auto found = tasks_.find(id);
    return found != tasks_.end() ? &found->second : nullptr;
}

Task* TaskStore::Find(TaskKind kind, const std::string& source)
{
    for (auto& [id, task] : tasks_) {
        if (task.kind == kind && task.source == source) {
            return &task;
        }
    }
    return nullptr;
}

Task& TaskStore::Add(Task task)
{
    task.id = static_cast<uint32_t>(Get(StateValue::NEXT_ID) + 1);
    Set(StateValue::NEXT_ID, task.id);
    Save(task);
    return tasks_[task.id] = std::move(task);
}

bool TaskStore::Save(const Task& task)
{
    return database_
        ->Prepare("INSERT OR REPLACE INTO task VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .Bind(task.id)
        .Bind(Wide(task.kind))
        .Bind(task.source)
        .Bind(task.target)
        .Bind(ToJson(task.app))
        .Bind(task.user)
        .Bind(static_cast<int64_t>(task.status))
        .Bind(task.subStatus)
        .Bind(task.error.code)
        .Bind(task.error.reason)
        .Bind(task.error.canRetry ? 1 : 0)
        .Bind(task.totalBytes)
        .Bind(task.doneBytes)
        .Bind(task.files)
        .Bind(task.priority)
        .Bind(task.staged.device)
        .Bind(task.staged.inode)
        .Bind(task.staged.birth)
        .Run();
}

void TaskStore::Erase(uint32_t id)
{
    database_->Prepare("DELETE FROM task WHERE id = ?").Bind(id).Run();
    tasks_.erase(id);
}

const Placed* TaskStore::FindPlaced(const std::string& target) const
{
    const auto found = placed_.find(target);
    return found != placed_.end() ? &found->second : nullptr;
}

bool TaskStore::SavePlaced(const std::string& target, const Placed& placed)
{
    placed_[target] = placed;
    return database_->Prepare("INSERT OR REPLACE INTO placed VALUES (?, ?, ?, ?, ?, ?, ?)")
        .Bind(target)
        .Bind(placed.source)
        .Bind(placed.bundleName)
        .Bind(placed.id.device)
        .Bind(placed.id.inode)
        .Bind(placed.id.birth)
        .Bind(placed.owner)
        .Run();
}

void TaskStore::ErasePlaced(const std::string& target)
{
    database_->Prepare("DELETE FROM placed WHERE target = ?").Bind(target).Run();
    placed_.erase(target);
}

int64_t TaskStore::Get(StateValue key) const
{
    const auto found = values_.find(static_cast<int64_t>(key));
    return found != values_.end() ? found->second : 0;
}

bool TaskStore::Set(StateValue key, int64_t value)
{
    values_[static_cast<int64_t>(key)] = value;
    return database_->Prepare("INSERT OR REPLACE INTO value VALUES (?, ?)")
        .Bind(static_cast<int64_t>(key))
        .Bind(value)
        .Run();
}

bool TaskStore::SetPreset(const std::string& text)
{
    preset_ = text;
    return database_->Prepare("INSERT OR REPLACE INTO preset VALUES (1, ?)").Bind(text).Run();
}

int32_t TaskStore::Priority(const std::string& source) const
{
    const auto found = priorities_.find(source);
    return found != priorities_.end() ? found->second : 0;
}

bool TaskStore::SetPriority(const std::string& source, int32_t priority)
{
    priorities_[source] = priority;
    return database_->Prepare("INSERT OR REPLACE INTO priority VALUES (?, ?)").Bind(source).Bind(priority).Run();
}

void TaskStore::ClearPriorities()
{
    priorities_.clear();
    database_->Execute("DELETE FROM priority");
}

}  // namespace VEXA::UpdateEngine
