// SPDX-License-Identifier: Apache-2.0
// The service's state, in memory and on disk: whatever is changed through it is there after a restart.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database.h"
#include "task.h"
#include "task_table.h"

namespace VEXA::UpdateEngine {

// Single values of the state.
enum class StateValue { STATUS, PAUSE_REASON, POLICY, START_TIME, END_TIME, NEXT_ID };

// Says what memory has when the disk does not take a change. TAKE_BACK: the state before the change; a request is then
// refused. KEEP: the change, because it has happened; it gets to the disk with the next transaction that succeeds.
enum class IfNotWritten { TAKE_BACK, KEEP };

// Not thread-safe, but Commit uses nothing that is read by those who only ask. Changes come between Begin and TakeBack.
class TaskStore {
public:
    // Null, with the reason, when the file can't be used. A damaged one is renamed, and a new state begins.
    // `beforeLoad` is called when the file is this process's alone, before all of it is read and checked, which takes
    // time. It ends that with false.
    static std::unique_ptr<TaskStore> Open(
        std::string path, std::string& error, std::function<bool()> beforeLoad = nullptr);

    const TaskTable& Tasks() const { return tasks_; }
    // Gives it the next id. The ids of tasks that are gone are not used again.
    TaskRef Add(Task task);
    void Save(const Task& task);
    // Changes the task in memory only, for what the next start has no use for.
    void Keep(const Task& task) { Put(task.id, std::make_shared<const Task>(task)); }
    void Erase(uint32_t id);

    const std::map<std::string, Placed>& AllPlaced() const { return placed_; }
    const Placed* FindPlaced(const std::string& target) const;
    // Null forgets it.
    void SavePlaced(const std::string& target, const Placed* placed);

    int64_t Get(StateValue key) const { return ValueOf(values_, key); }
    void Set(StateValue key, int64_t value);
    // The caller's own data, see PresetData.
    const std::string& Preset() const { return preset_; }
    void SetPreset(const std::string& text);

    // By the source directories of reserved applications; 0 unless set.
    int32_t Priority(const std::string& source) const { return ValueOf(priorities_, source); }
    void SetPriority(const std::string& source, int32_t priority);
    void ClearPriorities();

    void Begin(IfNotWritten ifNotWritten);
    // False when the disk does not take what has been changed.
    bool Commit();
    // Ends the change. What has not been committed is not written, and in memory it is treated as said at the begin.
    void TakeBack();

private:
    explicit TaskStore(std::unique_ptr<Database> database) : database_(std::move(database)) {}
    // False, with the reason, when the file is damaged or can't be this version's.
    bool Load(std::function<bool()>& beforeLoad, std::string& error, bool& isDamaged);
    template <typename... Values>
    void Write(const char* sql, const Values&... values);
    void WriteTask(const Task& task);
    void WritePlaced(const std::string& target, const Placed& placed);
    void WriteEverything();
    // Change memory; null removes.
    void Put(uint32_t id, TaskRef task);
    template <typename Key, typename Value>
    void Put(std::map<Key, Value>& map, const Key& key, const std::optional<Value>& value);
    // `undo` brings back in memory what is about to be changed.
    void Remember(std::function<void()> undo);

    const std::unique_ptr<Database> database_;
    TaskTable tasks_;
    std::map<std::string, Placed> placed_;  // by target
    std::map<StateValue, int64_t> values_;
    std::map<std::string, int32_t> priorities_;
    std::string preset_;
    bool isBehind_ = false;   // the disk lacks something that memory has
    bool isChanged_ = false;  // since Begin
    // Functions that take the changes since Begin back; that of the last change stands at the end.
    std::vector<std::function<void()>> undo_;
    bool isUndoable_ = false;
};

}  // namespace VEXA::UpdateEngine
