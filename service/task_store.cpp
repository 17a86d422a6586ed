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
    "BEGIN;"
    "CREATE TABLE IF NOT EXISTS task (id INTEGER PRIMARY KEY, kind, source, target, app, user, status, sub_status,"
    " error_code, error_reason, can_retry, total_bytes, done_bytes, files, priority, device, inode, birth);"
    "CREATE TABLE IF NOT EXISTS placed (target PRIMARY KEY, source, bundle_name, device, inode, birth, owner);"
    "CREATE TABLE IF NOT EXISTS value (key INTEGER PRIMARY KEY, value);"
    "CREATE TABLE IF NOT EXISTS priority (source PRIMARY KEY, value);"
    "CREATE TABLE IF NOT EXISTS preset (id INTEGER PRIMARY KEY, text);"
    "PRAGMA user_version = 1;"
    "COMMIT;";

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
    // Not again in a file that has them: that would be a write, for which there may be no room.
    if (found != kVersion && (found != 0 || !database_->Execute(kTables))) {
        return false;
    }
    LoadTasks();
    auto placed = database_->Prepare("SELECT target, source, bundle_name, device, inode, birth, owner FROM placed");
    while (placed.Step()) {
        const std::string target = placed.Text();
        Placed& record = contents_.placed[target];
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
        contents_.values[key] = values.Int();
    }
    auto priorities = database_->Prepare("SELECT source, value FROM priority");
    while (priorities.Step()) {
        const std::string source = priorities.Text();
        contents_.priorities[source] = static_cast<int32_t>(priorities.Int());
    }
    auto preset = database_->Prepare("SELECT text FROM preset");
    contents_.preset = preset.Step() ? preset.Text() : std::string();
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
        contents_.tasks[task.id] = task;
    }
}

Task* TaskStore::Find(uint32_t id)
{
    const auto found = contents_.tasks.find(id);
    return found != contents_.tasks.end() ? &found->second : nullptr;
}

Task* TaskStore::Find(TaskKind kind, const std::string& source)
{
    for (auto& [id, task] : contents_.tasks) {
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
    Write(task);
    return contents_.tasks[task.id] = std::move(task);
}

bool TaskStore::Save(const Task& task)
{
    contents_.tasks[task.id] = task;
    return Write(task);
}

void TaskStore::Erase(uint32_t id)
{
    contents_.tasks.erase(id);
    Write(std::move(database_->Prepare("DELETE FROM task WHERE id = ?").Bind(id)));
}

const Placed* TaskStore::FindPlaced(const std::string& target) const
{
    const auto found = contents_.placed.find(target);
    return found != contents_.placed.end() ? &found->second : nullptr;
}

bool TaskStore::SavePlaced(const std::string& target, const Placed& placed)
{
    contents_.placed[target] = placed;
    return Write(target, placed);
}

void TaskStore::ErasePlaced(const std::string& target)
{
    contents_.placed.erase(target);
    Write(std::move(database_->Prepare("DELETE FROM placed WHERE target = ?").Bind(target)));
}

int64_t TaskStore::Get(StateValue key) const
{
    const auto found = contents_.values.find(static_cast<int64_t>(key));
    return found != contents_.values.end() ? found->second : 0;
}

bool TaskStore::Set(StateValue key, int64_t value)
{
    contents_.values[static_cast<int64_t>(key)] = value;
    return WriteValue(static_cast<int64_t>(key), value);
}

bool TaskStore::SetPreset(const std::string& text)
{
    contents_.preset = text;
    return WritePreset();
}

int32_t TaskStore::Priority(const std::string& source) const
{
    const auto found = contents_.priorities.find(source);
    return found != contents_.priorities.end() ? found->second : 0;
}

bool TaskStore::SetPriority(const std::string& source, int32_t priority)
{
    contents_.priorities[source] = priority;
    return WritePriority(source, priority);
}

void TaskStore::ClearPriorities()
{
    contents_.priorities.clear();
    Write(database_->Prepare("DELETE FROM priority"));
}

bool TaskStore::Write(Statement&& statement)
{
    const bool done = statement.Run();
    isBehind_ = isBehind_ || !done;
    return done;
}

bool TaskStore::Write(const Task& task)
{
    auto statement =
        database_->Prepare("INSERT OR REPLACE INTO task VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    statement.Bind(task.id)
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
        .Bind(task.staged.birth);
    return Write(std::move(statement));
}

bool TaskStore::Write(const std::string& target, const Placed& placed)
{
    auto statement = database_->Prepare("INSERT OR REPLACE INTO placed VALUES (?, ?, ?, ?, ?, ?, ?)");
    statement.Bind(target)
        .Bind(placed.source)
        .Bind(placed.bundleName)
        .Bind(placed.id.device)
        .Bind(placed.id.inode)
        .Bind(placed.id.birth)
        .Bind(placed.owner);
    return Write(std::move(statement));
}

bool TaskStore::WriteValue(int64_t key, int64_t value)
{
    return Write(std::move(database_->Prepare("INSERT OR REPLACE INTO value VALUES (?, ?)").Bind(key).Bind(value)));
}

bool TaskStore::WritePriority(const std::string& source, int32_t priority)
{
    return Write(
        std::move(database_->Prepare("INSERT OR REPLACE INTO priority VALUES (?, ?)").Bind(source).Bind(priority)));
}

bool TaskStore::WritePreset()
{
    return Write(std::move(database_->Prepare("INSERT OR REPLACE INTO preset VALUES (1, ?)").Bind(contents_.preset)));
}

void TaskStore::WriteEverything()
{
    database_->Execute(
        "DELETE FROM task; DELETE FROM placed; DELETE FROM value; DELETE FROM priority; DELETE FROM preset;");
    for (const auto& [id, task] : contents_.tasks) {
        Write(task);
    }
    for (const auto& [target, placed] : contents_.placed) {
        Write(target, placed);
    }
    for (const auto& [key, value] : contents_.values) {
        WriteValue(key, value);
    }
    for (const auto& [source, priority] : contents_.priorities) {
        WritePriority(source, priority);
    }
    WritePreset();
}

TaskStore::Transaction TaskStore::Begin(IfNotWritten ifNotWritten)
{
    return {*this, ifNotWritten};
}

TaskStore::Transaction::Transaction(TaskStore& store, IfNotWritten ifNotWritten) : store_(store)
{
    if (ifNotWritten == IfNotWritten::TAKE_BACK) {
        before_ = store.contents_;
    }
    store.database_->Begin();
    if (store.isBehind_) {
        store.WriteEverything();
    }
}

TaskStore::Transaction::~Transaction()
{
    if (isOpen_) {
        store_.database_->Rollback();
        TakeBack();
    }
}

bool TaskStore::Transaction::Commit()
{
    isOpen_ = false;
    const bool done = store_.database_->Commit();
    if (done) {
        store_.isBehind_ = false;
    } else {
        TakeBack();
    }
    return done;
}

void TaskStore::Transaction::TakeBack()
{
    if (before_) {
        store_.contents_ = *std::move(before_);
    } else {
        store_.isBehind_ = true;
    }
}

}  // namespace VEXA::UpdateEngine
