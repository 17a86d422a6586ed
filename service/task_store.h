// SPDX-License-Identifier: Apache-2.0
// The service's state, in memory and on disk: whatever is changed through it is there after a restart.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "database.h"
#include "task.h"
#include "task_table.h"

namespace VEXA::UpdateEngine {

// Single values of the state.
enum class StateValue { STATUS, PAUSE_REASON, POLICY, START_TIME, END_TIME, NEXT_ID };

// What memory has when the disk does not take a change: what was before it, for a request, which then is refused; or
// the change, for what has happened. That gets to the disk with the next transaction that it takes.
enum class IfNotWritten { TAKE_BACK, KEEP };

// Not thread-safe. Writers return false when the disk didn't take it; outside a transaction memory keeps it.
class TaskStore {
public:
    class Transaction;

    // Null, with the reason, when the file can't be used. A damaged one is renamed, and a new state begins.
    static std::unique_ptr<TaskStore> Open(std::string path, std::string& error);

    const TaskTable& Tasks() const { return tasks_; }
    // Gives it the next id. The ids of tasks that are gone are not used again.
    TaskRef Add(Task task);
    bool Save(const Task& task);
    // Changes it in memory only: what the next start has no use for.
    void Keep(const Task& task) { PutTask(task.id, std::make_shared<const Task>(task)); }
    void Erase(uint32_t id);

    const std::map<std::string, Placed>& AllPlaced() const { return placed_; }
    const Placed* FindPlaced(const std::string& target) const;
    // Null forgets it.
    bool SavePlaced(const std::string& target, const Placed* placed);

    int64_t Get(StateValue key) const;
    bool Set(StateValue key, int64_t value);
    // The caller's own data, see PresetData.
    const std::string& Preset() const { return preset_; }
    bool SetPreset(const std::string& text);

    // By the source directories of reserved applications; 0 unless set.
    int32_t Priority(const std::string& source) const;
    bool SetPriority(const std::string& source, int32_t priority);
    void ClearPriorities();

    // Changes made while the result lives go to disk together, with its Commit. One at a time.
    Transaction Begin(IfNotWritten ifNotWritten);

private:
    explicit TaskStore(std::unique_ptr<Database> database) : database_(std::move(database)) {}
    // False, with the reason, when the file is damaged or can't be this version's.
    bool Load(std::string& error, bool& isDamaged);
    // Reads all rows of a query; false when one can't be read.
    bool ForEachRow(const char* sql, const std::function<void(Statement&)>& read);
    template <typename... Values>
    bool Write(const char* sql, const Values&... values);
    bool WriteTask(const Task& task);
    bool WritePlaced(const std::string& target, const Placed& placed);
    void WriteEverything();
    void PutTask(uint32_t id, TaskRef task);
    // `undo` brings back in memory what the open transaction is about to change.
    void Remember(std::function<void()> undo);

    const std::unique_ptr<Database> database_;
    TaskTable tasks_;
    std::map<std::string, Placed> placed_;  // by target
    std::map<int64_t, int64_t> values_;
    std::map<std::string, int32_t> priorities_;
    std::string preset_;
    bool isBehind_ = false;  // the disk lacks something that memory has
    // What takes the changes of the open transaction back, the last change at the end.
    std::vector<std::function<void()>> undo_;
    bool isUndoable_ = false;
};

class TaskStore::Transaction {
public:
    // Without a Commit nothing of it is written.
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool Commit();

private:
    friend class TaskStore;
    Transaction(TaskStore& store, IfNotWritten ifNotWritten);
    void End(bool isWritten);

    TaskStore& store_;
    const bool wasBehind_;
    bool isOpen_ = true;
};

}  // namespace VEXA::UpdateEngine
