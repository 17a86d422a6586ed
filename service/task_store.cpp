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

template <typename... Values>
bool TaskStore::Write(const char* sql, const Values&... values)
{
    auto statement = database_->Prepare(sql);
    statement.Bind(values...);
    const bool done = statement.Run();
    isBehind_ = isBehind_ || !done;
    return done;
}

bool TaskStore::Load()
{
    auto version = database_->Prepare("PRAGMA user_version");
    int64_t found = -1;
    if (version.Step()) {
        version.Read(found);
    }
    version.Run();
    // Not again in a file that has them: that would be a write, for which there may be no room.
    if (found != kVersion && (found != 0 || !database_->Execute(kTables))) {
        return false;
    }
    LoadTasks();
    auto placed = database_->Prepare("SELECT target, source, bundle_name, device, inode, birth, owner FROM placed");
    while (placed.Step()) {
        std::string target;
        placed.Read(target);
        Placed& record = contents_.placed[target];
        FileId& id = record.id;
        placed.Read(record.source, record.bundleName, id.device, id.inode, id.birth, record.owner);
    }
    auto values = database_->Prepare("SELECT key, value FROM value");
    while (values.Step()) {
        int64_t key = 0;
        values.Read(key);
        values.Read(contents_.values[key]);
    }
    auto priorities = database_->Prepare("SELECT source, value FROM priority");
    while (priorities.Step()) {
        std::string source;
        priorities.Read(source);
        priorities.Read(contents_.priorities[source]);
    }
    auto preset = database_->Prepare("SELECT text FROM preset");
    if (preset.Step()) {
        preset.Read(contents_.preset);
    }
    return true;
}

void TaskStore::LoadTasks()
{
    auto rows = database_->Prepare(
        "SELECT id, kind, source, target, app, user, status, sub_status, error_code, error_reason, can_retry,"
        " total_bytes, done_bytes, files, priority, device, inode, birth FROM task");
    while (rows.Step()) {
        Task task;
        std::string app;
        rows.Read(task.id, task.kind, task.source, task.target, app, task.user, task.status, task.subStatus,
            task.error.code, task.error.reason, task.error.canRetry, task.totalBytes, task.doneBytes, task.files,
            task.priority, task.staged.device, task.staged.inode, task.staged.birth);
        JsonParse::JsonStrToStruct(app, task.app);
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

std::vector<uint32_t> TaskStore::Select(const std::function<bool(const Task&)>& isMeant) const
{
    std::vector<uint32_t> ids;
    for (const auto& [id, task] : contents_.tasks) {
        if (isMeant(task)) {
            ids.push_back(id);
        }
    }
    return ids;
}

Task& TaskStore::Add(Task task)
{
    task.id = static_cast<uint32_t>(Get(StateValue::NEXT_ID) + 1);
    Set(StateValue::NEXT_ID, task.id);
    WriteTask(task);
    return contents_.tasks[task.id] = std::move(task);
}

bool TaskStore::Save(const Task& task)
{
    contents_.tasks[task.id] = task;
    return WriteTask(task);
}

void TaskStore::Erase(uint32_t id)
{
    contents_.tasks.erase(id);
    Write("DELETE FROM task WHERE id = ?", id);
}

const Placed* TaskStore::FindPlaced(const std::string& target) const
{
    const auto found = contents_.placed.find(target);
    return found != contents_.placed.end() ? &found->second : nullptr;
}

bool TaskStore::SavePlaced(const std::string& target, const Placed& placed)
{
    contents_.placed[target] = placed;
    return WritePlaced(target, placed);
}

void TaskStore::ErasePlaced(const std::string& target)
{
    contents_.placed.erase(target);
    Write("DELETE FROM placed WHERE target = ?", target);
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
    Write("DELETE FROM priority");
}

bool TaskStore::WriteTask(const Task& task)
{
    return Write("INSERT OR REPLACE INTO task VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", task.id,
        task.kind, task.source, task.target, ToJson(task.app), task.user, task.status, task.subStatus, task.error.code,
        task.error.reason, task.error.canRetry, task.totalBytes, task.doneBytes, task.files, task.priority,
        task.staged.device, task.staged.inode, task.staged.birth);
}

bool TaskStore::WritePlaced(const std::string& target, const Placed& placed)
{
    return Write("INSERT OR REPLACE INTO placed VALUES (?, ?, ?, ?, ?, ?, ?)", target, placed.source, placed.bundleName,
        placed.id.device, placed.id.inode, placed.id.birth, placed.owner);
}

bool TaskStore::WriteValue(int64_t key, int64_t value)
{
    return Write("INSERT OR REPLACE INTO value VALUES (?, ?)", key, value);
}

bool TaskStore::WritePriority(const std::string& source, int32_t priority)
{
    return Write("INSERT OR REPLACE INTO priority VALUES (?, ?)", source, priority);
}

bool TaskStore::WritePreset()
{
    return Write("INSERT OR REPLACE INTO preset VALUES (1, ?)", contents_.preset);
}

void TaskStore::WriteEverything()
{
    database_->Execute(
        "DELETE FROM task; DELETE FROM placed; DELETE FROM value; DELETE FROM priority; DELETE FROM preset;");
    for (const auto& [id, task] : contents_.tasks) {
        WriteTask(task);
    }
    for (const auto& [target, placed] : contents_.placed) {
        WritePlaced(target, placed);
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
