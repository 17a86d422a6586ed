// SPDX-License-Identifier: Apache-2.0
// The service's state, in memory and on disk: whatever is changed through it is there after a restart.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "database.h"
#include "task.h"

namespace VEXA::UpdateEngine {

// Single values of the state.
enum class StateValue { STATUS, PAUSE_REASON, POLICY, START_TIME, END_TIME, NEXT_ID };

// Not thread-safe. Writers return false when the disk didn't take it; memory has it all the same.
class TaskStore {
public:
    // Null, with the reason, when the file can't be used.
    static std::unique_ptr<TaskStore> Open(const std::string& path, std::string& error);

    const std::map<uint32_t, Task>& Tasks() const { return tasks_; }
    // Null when there is none.
    Task* Find(uint32_t id);
    // The task of that kind for the source directory.
    Task* Find(TaskKind kind, const std::string& source);
    // Gives it the next id. The ids of tasks that are gone are not used again.
    Task& Add(Task task);
    bool Save(const Task& task);
    void Erase(uint32_t id);

    const std::map<std::string, Placed>& AllPlaced() const { return placed_; }
    const Placed* FindPlaced(const std::string& target) const;
    bool SavePlaced(const std::string& target, const Placed& placed);
    void ErasePlaced(const std::string& target);

    int64_t Get(StateValue key) const;
    bool Set(StateValue key, int64_t value);
    // The caller's own data, see PresetData.
    const std::string& Preset() const { return preset_; }
    bool SetPreset(const std::string& text);

    // By the source directories of reserved applications; 0 unless set.
    int32_t Priority(const std::string& source) const;
    bool SetPriority(const std::string& source, int32_t priority);
    void ClearPriorities();

    // Changes made while the result lives go to disk together, with its Commit.
    Transaction Begin() { return Transaction(*database_); }

private:
    explicit TaskStore(std::unique_ptr<Database> database) : database_(std::move(database)) {}
    bool Load();
    void LoadTasks();

    const std::unique_ptr<Database> database_;
    std::map<uint32_t, Task> tasks_;
    std::map<std::string, Placed> placed_;  // by target
    std::map<int64_t, int64_t> values_;
    std::map<std::string, int32_t> priorities_;
    std::string preset_;
};

}  // namespace VEXA::UpdateEngine
