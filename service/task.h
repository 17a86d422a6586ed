// SPDX-License-Identifier: Apache-2.0
// A task is the service's work for one package. A placed package is one that the service has put into the target.
#pragma once

#include <cstdint>
#include <string>

#include "native_migrate/migrate_records.h"
#include "native_migrate/migrate_results.h"
#include "native_migrate/migrate_stage.h"

namespace VEXA::UpdateEngine {

enum class TaskKind : int32_t { MIGRATE = 0, RESTORE = 1 };

// Identifies a directory of the target, whatever its name and whichever device the target has become. A file system
// uses the inode of a removed directory again; the time of birth, in nanoseconds since 1970, tells the two apart. It is
// 0 where the file system doesn't know it.
struct FileId {
    int64_t inode = 0;
    int64_t birth = 0;

    friend bool operator==(const FileId& a, const FileId& b) { return a.inode == b.inode && a.birth == b.birth; }
};

struct Task {
    uint32_t id = 0;
    TaskKind kind = TaskKind::MIGRATE;
    std::string source;  // directory names
    std::string target;
    RestoreAppInfo app;  // the application as its manifest had it when the task was made
    int32_t user = 0;
    TaskStatus status = TaskStatus::IDLE;
    uint32_t subStatus = MIGRATE_SUB_NONE;
    ErrorInfo error;
    int64_t totalBytes = -1;  // not measured yet
    int64_t space = 0;        // what it needs in the target; 0 when that is not known
    int64_t doneBytes = 0;    // the most that has been copied of it, also before a restart
    int64_t files = 0;
    int32_t priority = 0;
    FileId staged = {};  // what is being put into its place while subStatus is MIGRATE_SUB_PLACING

    bool IsCalled(const std::string& name) const { return source == name || app.packageName == name; }
    // The one stage that it is in. MigrateStage::NONE stands for all tasks of the migration.
    MigrateStage Stage() const;
    bool IsEnded() const { return status == TaskStatus::FINISHED || status == TaskStatus::FAILED; }
    int64_t RemainingBytes() const
    {
        const bool isCopied = IsEnded() || subStatus == MIGRATE_SUB_PLACING;
        return isCopied || totalBytes < doneBytes ? 0 : totalBytes - doneBytes;
    }
    int32_t Percent() const;
    TaskProgress AsProgress(TaskPauseReason pauseReason) const;
    TaskInfo AsInfo(TaskPauseReason pauseReason, uint32_t index) const;
    RestoreEventInfo AsRestoreEvent() const { return {app, static_cast<int32_t>(status), error}; }
};

// A package in the target. It is the service's own as long as the directory is the one that was placed.
struct Placed {
    std::string source;
    FileId id;
    int64_t owner = -1;      // the user whose backup files they are; -1: nobody's yet
    bool isLeaving = false;  // it is to be taken away: counts as gone, and may be replaced
};

}  // namespace VEXA::UpdateEngine
