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

    // Null, with the reason, when the file can't be used.
    static std::unique_ptr<TaskStore> Open(const std::string& path, std::string& error);

    const std::map<uint32_t, Task>& Tasks() const { return contents_.tasks; }
    // Null when there is none.
    Task* Find(uint32_t id);
    // The task of that kind for the source directory.
    Task* Find(TaskKind kind, const std::string& source);
    // The ids of all that are meant.
    std::vector<uint32_t> Select(const std::function<bool(const Task&)>& isMeant) const;
    // Gives it the next id. The ids of tasks that are gone are not used again.
    Task& Add(Task task);
    bool Save(const Task& task);
    void Erase(uint32_t id);

    const std::map<std::string, Placed>& AllPlaced() const { return contents_.placed; }
    const Placed* FindPlaced(const std::string& target) const;
    bool SavePlaced(const std::string& target, const Placed& placed);
    void ErasePlaced(const std::string& target);

    int64_t Get(StateValue key) const;
    bool Set(StateValue key, int64_t value);
    // The caller's own data, see PresetData.
    const std::string& Preset() const { return contents_.preset; }
    bool SetPreset(const std::string& text);

    // By the source directories of reserved applications; 0 unless set.
    int32_t Priority(const std::string& source) const;
    bool SetPriority(const std::string& source, int32_t priority);
    void ClearPriorities();

    // Changes made while the result lives go to disk together, with its Commit. One at a time.
    Transaction Begin(IfNotWritten ifNotWritten);

private:
    struct Contents {
        std::map<uint32_t, Task> tasks;
        std::map<std::string, Placed> placed;  // by target
        std::map<int64_t, int64_t> values;
        std::map<std::string, int32_t> priorities;
        std::string preset;
    };

    explicit TaskStore(std::unique_ptr<Database> database) : database_(std::move(database)) {}
    bool Load();
    void LoadTasks();
    template <typename... Values>
    bool Write(const char* sql, const Values&... values);
    bool WriteTask(const Task& task);
    bool WritePlaced(const std::string& target, const Placed& placed);
    bool WriteValue(int64_t key, int64_t value);
    bool WritePriority(const std::string& source, int32_t priority);
    bool WritePreset();
    void WriteEverything();

    const std::unique_ptr<Database> database_;
    Contents contents_;
    bool isBehind_ = false;  // the disk lacks something that memory has
};

class TaskStore::Transaction {
public:
    // Without a Commit nothing of it is written.
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // When a TAKE_BACK fails, pointers and references to the store's tasks are void.
    bool Commit();

private:
    friend class TaskStore;
    Transaction(TaskStore& store, IfNotWritten ifNotWritten);
    void TakeBack();

    TaskStore& store_;
    std::optional<Contents> before_;  // to be taken back to
    bool isOpen_ = true;
};

}  // namespace VEXA::UpdateEngine
