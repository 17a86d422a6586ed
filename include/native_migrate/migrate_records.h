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
    int32_t status = 0;

    static constexpr auto Members()
    {
        return MemberList(Member{"isTaskExist", &MigrateStatus::isTaskExist}, Member{"status", &MigrateStatus::status});
    }
};

// Overall progress.
struct MigrateProgress {
    int32_t status = 0;
    uint32_t percent = 0;
    uint64_t remainingTime = 0;
    int32_t suspendReason = 0;
    int64_t requiredTraffic = 0;
    int64_t requiredMigrationSpace = 0;
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
    std::string source;
    std::string target;
    int32_t status = 0;

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
