// SPDX-License-Identifier: Apache-2.0
// One migration task.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "native_migrate/export.h"
#include "native_migrate/record_members.h"

namespace VEXA {
class JsonContext;
}

namespace VEXA::UpdateEngine {

// The service defines the values of these enumerations and may send others than are named here; the library passes
// every value on unchanged.
enum class TaskStatus : int32_t { IDLE = 0, RUNNING = 1, PAUSED = 2, FINISHED = 3, FAILED = 4 };
enum class TaskType : int32_t { UNKNOWN = 0, APP = 1, MODULE = 2, USER = 3 };
enum class TaskPauseReason : int32_t { NONE = 0, USER = 1, NETWORK = 2, STORAGE = 3, POWER = 4 };
enum class TaskConfigStage : int32_t { NONE = 0, DEFAULT = 16 };

// How a task is shown to the user.
struct TaskDisplayPolicy {
    std::string needDisplay;
    std::string displayBundleName;
    std::vector<std::string> displayModuleNames;

    static constexpr auto Members()
    {
        return MemberList(Member{"needDisplay", &TaskDisplayPolicy::needDisplay},
            Member{"displayBundleName", &TaskDisplayPolicy::displayBundleName},
            Member{"displayModuleNames", &TaskDisplayPolicy::displayModuleNames});
    }
};

// Units are those of the reference service.
struct TaskInfo {
    uint32_t id = 0;
    TaskStatus status = TaskStatus::IDLE;
    uint32_t subStatus = 0;  // MIGRATE_SUB_NONE, _COPYING or _PLACING
    TaskType type = TaskType::UNKNOWN;
    std::string source;
    std::string target;
    TaskDisplayPolicy displayPolicy;
    TaskPauseReason pauseReason = TaskPauseReason::NONE;
    int64_t requiredTraffic = 0;  // bytes that are still to be copied
    int32_t progress = 0;         // percent, 0 to 100
    uint32_t index = 0;           // its place among all tasks, from 0
    int32_t userId = 0;
    TaskConfigStage configStage = TaskConfigStage::DEFAULT;

    static constexpr auto Members()
    {
        return MemberList(Member{"id", &TaskInfo::id}, Member{"status", &TaskInfo::status},
            Member{"subStatus", &TaskInfo::subStatus}, Member{"type", &TaskInfo::type},
            Member{"source", &TaskInfo::source}, Member{"target", &TaskInfo::target},
            Member{"displayPolicy", &TaskInfo::displayPolicy}, Member{"pauseReason", &TaskInfo::pauseReason},
            Member{"requiredTraffic", &TaskInfo::requiredTraffic}, Member{"progress", &TaskInfo::progress},
            Member{"index", &TaskInfo::index}, Member{"userId", &TaskInfo::userId},
            Member{"configStage", &TaskInfo::configStage});
    }

    // Fills `task` from an object. Every key is expected: one that is missing or does not fit leaves its field as it
    // was and writes one error line, except that an enumeration goes back to its default, and that `displayPolicy` is
    // read as far as it fits, without a line when a member does not. Never fails. Uses nothing but its arguments, so it
    // may be called from any thread.
    NATIVE_MIGRATE_EXPORT void FromJson(const JsonContext& json, TaskInfo& task);
};

}  // namespace VEXA::UpdateEngine
