// SPDX-License-Identifier: Apache-2.0
// The tasks in memory, with what is asked of all of them kept up to date, so that no answer has to look at each.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "task.h"

namespace VEXA::UpdateEngine {

// Does not change any more: a change puts another in its place. So it may be read without the lock of the table.
using TaskRef = std::shared_ptr<const Task>;

// Sums over the tasks of one kind.
struct TaskSums {
    int64_t tasks = 0;
    int64_t failed = 0;
    int64_t unmeasured = 0;  // that have not ended
    int64_t bytes = 0;
    int64_t remainingBytes = 0;
    std::map<MigrateStage, int64_t> inStage;
};

// The key's value, or one by default when it has none.
template <typename Key, typename Value>
Value ValueOf(const std::map<Key, Value>& map, const Key& key)
{
    const auto found = map.find(key);
    return found != map.end() ? found->second : Value();
}

class TaskTable {
public:
    const std::map<uint32_t, TaskRef>& ById() const { return tasks_; }
    // Null when there is none.
    TaskRef Find(uint32_t id) const { return ValueOf(tasks_, id); }
    // The task of that kind for the source directory.
    TaskRef Find(TaskKind kind, const std::string& source) const;
    // All that are meant, by their ids.
    std::vector<TaskRef> Select(
        TaskKind kind, const std::function<bool(const Task&)>& isMeant = [](const Task&) { return true; }) const;
    // The next idle one to be measured, in the order of ids; and the next to be copied, that of the highest priority.
    TaskRef NextUnmeasured(TaskKind kind) const { return First(Of(kind).unmeasured); }
    TaskRef NextIdle(TaskKind kind) const { return First(Of(kind).idle); }
    const TaskSums& Sums(TaskKind kind) const { return Of(kind).sums; }
    int64_t CountIn(MigrateStage stage) const;

    // Null removes it. Returns what had that id.
    TaskRef Put(uint32_t id, TaskRef task);

private:
    using Order = std::set<std::pair<int64_t, uint32_t>>;  // by falling priority, then by id
    struct Kind {
        std::map<std::string, uint32_t> bySource;
        Order unmeasured;
        Order idle;
        TaskSums sums;
    };

    const Kind& Of(TaskKind kind) const { return kinds_[static_cast<size_t>(kind)]; }
    TaskRef First(const Order& order) const { return order.empty() ? nullptr : Find(order.begin()->second); }
    void Count(const Task& task, int64_t sign);

    std::map<uint32_t, TaskRef> tasks_;
    Kind kinds_[2];
};

}  // namespace VEXA::UpdateEngine
