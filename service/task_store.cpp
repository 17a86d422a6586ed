// SPDX-License-Identifier: Apache-2.0
#include "task_store.h"

#include <algorithm>
#include <utility>

#include "json_parse.h"
#include "plain_name.h"
#include "service_log.h"
#include "state_file.h"

namespace VEXA::UpdateEngine {

namespace {

// A change of the tables needs a new number and a way from the old one.
constexpr int64_t kVersion = 2;
constexpr char kTables[] =
    "BEGIN;"
    "CREATE TABLE IF NOT EXISTS task (id INTEGER PRIMARY KEY, kind, source, target, app, user, status, sub_status,"
    " error_code, error_reason, can_retry, total_bytes, done_bytes, files, priority, inode, birth);"
    "CREATE TABLE IF NOT EXISTS placed (target PRIMARY KEY, source, is_leaving, inode, birth, owner);"
    "CREATE TABLE IF NOT EXISTS value (key INTEGER PRIMARY KEY, value);"
    "CREATE TABLE IF NOT EXISTS priority (source PRIMARY KEY, value);"
    "CREATE TABLE IF NOT EXISTS preset (id INTEGER PRIMARY KEY, text);"
    "PRAGMA user_version = 2;"
    "COMMIT;";
// From version 1, which knew directories by their device too.
constexpr char kFromVersion1[] =
    "BEGIN;"
    "ALTER TABLE task DROP COLUMN device;"
    "ALTER TABLE placed DROP COLUMN device;"
    "ALTER TABLE placed RENAME COLUMN bundle_name TO is_leaving;"
    "UPDATE placed SET is_leaving = 0;"
    "PRAGMA user_version = 2;"
    "COMMIT;";

// Names are checked, so that nobody who can write the state leads the service elsewhere with it.
void Distrust(Task& task)
{
    const bool isStatus = task.status >= TaskStatus::IDLE && task.status <= TaskStatus::FAILED;
    if (!task.IsEnded() && (!isStatus || !IsPlainName(task.source) || !IsPlainName(task.target))) {
        task.status = TaskStatus::FAILED;
        task.subStatus = MIGRATE_SUB_NONE;
        task.error = {MIGRATE_ERROR_NAME, "the state has a name that can't be that of a directory", false};
    }
}

}  // namespace

std::unique_ptr<TaskStore> TaskStore::Open(std::string path, std::string& error, std::function<bool()> beforeLoad)
{
    for (const bool isNew : {false, true}) {
        if (!PrepareStateFile(path, error)) {
            return nullptr;
        }
        bool isDamaged = false;
        if (auto database = Database::Open(path, error, isDamaged)) {
            std::unique_ptr<TaskStore> store(new TaskStore(std::move(database)));
            if (store->Load(beforeLoad, error, isDamaged)) {
                return store;
            }
        }
        if (isNew || !isDamaged) {
            break;
        }
        SA_LOGE("the state is damaged and is set aside: %{public}s", error.c_str());
        if (!SetStateAside(path, error)) {
            return nullptr;
        }
    }
    error = error.empty() ? "" : path + ": " + error;
    return nullptr;
}

// A failure is the commit's too.
template <typename... Values>
void TaskStore::Write(const char* sql, const Values&... values)
{
    isChanged_ = true;
    database_->Write(sql, values...);
}

bool TaskStore::Load(std::function<bool()>& beforeLoad, std::string& error, bool& isDamaged)
{
    std::string found;
    int64_t version = -1;
    bool done = true;
    const auto load = [&](const char* sql, const std::function<void(Row&)>& read) {
        done = done && database_->ForEachRow(sql, read);
    };
    load("PRAGMA user_version", [&](Row& row) { row.Read(version); });
    if (done && version > kVersion) {
        error = "is the state of a newer service, of version " + std::to_string(version);
        return false;
    }
    if (done && beforeLoad != nullptr && !std::exchange(beforeLoad, nullptr)()) {
        return false;
    }
    load("PRAGMA quick_check(1)", [&](Row& row) { row.Read(found); });
    if (done && found != "ok") {
        error = found;
        isDamaged = true;
        return false;
    }
    // Tables that the file has are not made again: that would be a write, for which there may be no room.
    done = done && (version == kVersion || database_->Execute(version == 1 ? kFromVersion1 : kTables));
    load("SELECT * FROM task", [this](Row& row) {
        Task task;
        bool isRestore = false;
        std::string app;
        row.Read(task.id, isRestore, task.source, task.target, app, task.user, task.status, task.subStatus,
            task.error.code, task.error.reason, task.error.canRetry, task.totalBytes, task.doneBytes, task.files,
            task.priority, task.staged.inode, task.staged.birth);
        task.kind = isRestore ? TaskKind::RESTORE : TaskKind::MIGRATE;
        JsonParse::JsonStrToStruct(app, task.app);
        Distrust(task);
        tasks_.Put(task.id, std::make_shared<const Task>(task));
    });
    load("SELECT * FROM placed", [this](Row& row) {
        std::string target;
        Placed placed;
        row.Read(target, placed.source, placed.isLeaving, placed.id.inode, placed.id.birth, placed.owner);
        if (IsPlainName(target) && IsPlainName(placed.source)) {
            placed_[target] = placed;
        }
    });
    const auto readInto = [](auto& map) {
        return [&map](Row& row) {
            typename std::decay_t<decltype(map)>::key_type key = {};
            row.Read(key);
            row.Read(map[key]);
        };
    };
    load("SELECT * FROM value", readInto(values_));
    load("SELECT * FROM priority", readInto(priorities_));
    load("SELECT text FROM preset", [this](Row& row) { row.Read(preset_); });
    if (!done) {
        error = database_->LastError();
        isDamaged = database_->IsDamaged();
    }
    return done;
}

void TaskStore::Remember(std::function<void()> undo)
{
    if (isUndoable_) {
        undo_.push_back(std::move(undo));
    }
}

void TaskStore::Put(uint32_t id, TaskRef task)
{
    TaskRef before = tasks_.Put(id, std::move(task));
    Remember([this, id, before] { tasks_.Put(id, before); });
}

template <typename Key, typename Value>
void TaskStore::Put(std::map<Key, Value>& map, const Key& key, const std::optional<Value>& value)
{
    const auto found = map.find(key);
    const auto before = found != map.end() ? std::optional(found->second) : std::nullopt;
    Remember([this, &map, key, before] { Put(map, key, before); });
    if (value) {
        map[key] = *value;
    } else {
        map.erase(key);
    }
}

TaskRef TaskStore::Add(Task task)
{
    task.id = static_cast<uint32_t>(Get(StateValue::NEXT_ID) + 1);
    Set(StateValue::NEXT_ID, task.id);
    Save(task);
    return tasks_.Find(task.id);
}

void TaskStore::Save(const Task& task)
{
    Keep(task);
    WriteTask(task);
}

void TaskStore::Erase(uint32_t id)
{
    Put(id, nullptr);
    Write("DELETE FROM task WHERE id = ?", id);
}

const Placed* TaskStore::FindPlaced(const std::string& target) const
{
    const auto found = placed_.find(target);
    return found != placed_.end() ? &found->second : nullptr;
}

void TaskStore::SavePlaced(const std::string& target, const Placed* placed)
{
    const auto record = placed != nullptr ? std::optional(*placed) : std::nullopt;
    Put(placed_, target, record);
    if (record) {
        WritePlaced(target, *record);
    } else {
        Write("DELETE FROM placed WHERE target = ?", target);
    }
}

void TaskStore::Set(StateValue key, int64_t value)
{
    Put(values_, key, std::optional(value));
    Write("INSERT OR REPLACE INTO value VALUES (?, ?)", key, value);
}

void TaskStore::SetPreset(const std::string& text)
{
    Remember([this, before = preset_] { preset_ = before; });
    preset_ = text;
    Write("INSERT OR REPLACE INTO preset VALUES (1, ?)", text);
}

void TaskStore::SetPriority(const std::string& source, int32_t priority)
{
    Put(priorities_, source, std::optional(priority));
    Write("INSERT OR REPLACE INTO priority VALUES (?, ?)", source, priority);
}

void TaskStore::ClearPriorities()
{
    Remember([this, before = priorities_] { priorities_ = before; });
    priorities_.clear();
    Write("DELETE FROM priority");
}

void TaskStore::WriteTask(const Task& task)
{
    Write("INSERT OR REPLACE INTO task VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", task.id, task.kind,
        task.source, task.target, ToJson(task.app), task.user, task.status, task.subStatus, task.error.code,
        task.error.reason, task.error.canRetry, task.totalBytes, task.doneBytes, task.files, task.priority,
        task.staged.inode, task.staged.birth);
}

void TaskStore::WritePlaced(const std::string& target, const Placed& placed)
{
    Write("INSERT OR REPLACE INTO placed VALUES (?, ?, ?, ?, ?, ?)", target, placed.source, placed.isLeaving,
        placed.id.inode, placed.id.birth, placed.owner);
}

void TaskStore::WriteEverything()
{
    database_->Execute(
        "DELETE FROM task; DELETE FROM placed; DELETE FROM value; DELETE FROM priority; DELETE FROM preset;");
    for (const auto& [id, task] : tasks_.ById()) {
        WriteTask(*task);
    }
    for (const auto& [target, placed] : placed_) {
        WritePlaced(target, placed);
    }
    for (const auto& [key, value] : values_) {
        Write("INSERT OR REPLACE INTO value VALUES (?, ?)", key, value);
    }
    for (const auto& [source, priority] : priorities_) {
        Write("INSERT OR REPLACE INTO priority VALUES (?, ?)", source, priority);
    }
    Write("INSERT OR REPLACE INTO preset VALUES (1, ?)", preset_);
}

void TaskStore::Begin(IfNotWritten ifNotWritten)
{
    isUndoable_ = ifNotWritten == IfNotWritten::TAKE_BACK;
    isChanged_ = false;
    database_->Begin();
    if (isBehind_) {
        WriteEverything();
    }
}

bool TaskStore::Commit()
{
    const bool done = database_->Commit();
    if (done) {
        isBehind_ = false;
        isChanged_ = false;
        undo_.clear();
    }
    return done;
}

void TaskStore::TakeBack()
{
    database_->Rollback();
    isBehind_ = isBehind_ || (isChanged_ && !isUndoable_);
    isUndoable_ = false;
    const auto undo = std::exchange(undo_, {});
    std::for_each(undo.rbegin(), undo.rend(), [](const auto& step) { step(); });
}

}  // namespace VEXA::UpdateEngine
