// SPDX-License-Identifier: Apache-2.0
// The records in which the migration service's answers and events reach a client. Includes all others.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "native_migrate/business_error.h"
#include "native_migrate/migrate_stage.h"
#include "native_migrate/module_info.h"
#include "native_migrate/record_members.h"
#include "native_migrate/reserve_records.h"
#include "native_migrate/task_info.h"

namespace VEXA::UpdateEngine {

struct MigrateStatus {
    bool isTaskExist = false;
    int32_t status = 0;  // TaskStatus

    static constexpr auto Members()
    {
        return MemberList(Member{"isTaskExist", &MigrateStatus::isTaskExist}, Member{"status", &MigrateStatus::status});
    }
};

// Overall progress. The library passes every value on; units are those of the reference service, which leaves the last
// two at 0.
struct MigrateProgress {
    int32_t status = 0;                  // TaskStatus
    uint32_t percent = 0;                // 0 to 100, of the bytes of all tasks
    uint64_t remainingTime = 0;          // seconds, 0 while unknown
    int32_t suspendReason = 0;           // TaskPauseReason
    int64_t requiredTraffic = 0;         // bytes that are still to be copied
    int64_t requiredMigrationSpace = 0;  // bytes that the target still needs
    int32_t skipTime = 0;
    int32_t maxWaitTime = 0;

    static constexpr auto Members()
    {
        return MemberList(Member{"status", &MigrateProgress::status}, Member{"percent", &MigrateProgress::percent},
            Member{"remainingTime", &MigrateProgress::remainingTime},
            Member{"suspendReason", &MigrateProgress::suspendReason},
            Member{"requiredTraffic", &MigrateProgress::requiredTraffic},
            Member{"requiredMigrationSpace", &MigrateProgress::requiredMigrationSpace},
            Member{"skipTime", &MigrateProgress::skipTime}, Member{"maxWaitTime", &MigrateProgress::maxWaitTime});
    }
};

struct MigrateInfo {
    MigrateProgress migrateProgress;
    std::vector<TaskInfo> taskInfos;

    static constexpr auto Members()
    {
        return MemberList(
            Member{"migrateProgress", &MigrateInfo::migrateProgress}, Member{"taskInfos", &MigrateInfo::taskInfos});
    }
};

struct PakMigrateInfo {
    std::string source;  // directory names
    std::string target;
    int32_t status = 0;  // TaskStatus

    static constexpr auto Members()
    {
        return MemberList(Member{"source", &PakMigrateInfo::source}, Member{"target", &PakMigrateInfo::target},
            Member{"status", &PakMigrateInfo::status});
    }
};

struct MigrationUser {
    int32_t sourceUser = -1;
    int32_t targetUser = -1;

    static constexpr auto Members()
    {
        return MemberList(
            Member{"sourceUser", &MigrationUser::sourceUser}, Member{"targetUser", &MigrationUser::targetUser});
    }
};

// As the fields of TaskInfo that have these names.
struct TaskProgress {
    uint32_t id = 0;
    int32_t status = 0;
    uint32_t subStatus = 0;
    int32_t pauseReason = 0;
    int64_t requiredTraffic = 0;
    int32_t progress = 0;

    static constexpr auto Members()
    {
        return MemberList(Member{"id", &TaskProgress::id}, Member{"status", &TaskProgress::status},
            Member{"subStatus", &TaskProgress::subStatus}, Member{"pauseReason", &TaskProgress::pauseReason},
            Member{"requiredTraffic", &TaskProgress::requiredTraffic}, Member{"progress", &TaskProgress::progress});
    }
};

// One progress event.
struct EventInfo {
    MigrateProgress progress;
    std::vector<TaskProgress> taskProgresses;

    static constexpr auto Members()
    {
        return MemberList(
            Member{"progress", &EventInfo::progress}, Member{"taskProgresses", &EventInfo::taskProgresses});
    }
};

}  // namespace VEXA::UpdateEngine
