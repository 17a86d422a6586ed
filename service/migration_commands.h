// SPDX-License-Identifier: Apache-2.0
// The operations by which the engine is told what to do with the migration.
#pragma once

#include <functional>
#include <string>

#include "engine_state.h"
#include "operation_fields.h"

namespace VEXA::UpdateEngine {

class MigrationCommands {
public:
    explicit MigrationCommands(EngineState& state) : state_(state) {}

    // Begins to migrate every package that is not set aside or excluded. Returns at once; `data` has one element for
    // each package that can't be migrated, and the others are.
    BusinessError StartAll();
    // Adds one package to the migration.
    BusinessError StartPackage(const Name& name) { return StartPackageAs(name, "", {}); }
    // The same under the target name `targetName`, unless that is empty.
    BusinessError StartPackageAs(
        const Name& name, const std::string& targetName, const PakMigrationParameters& parameters);
    // Drops tasks; one that is being copied ends without a trace. What is in its place stays there.
    BusinessError RemoveUser(User user);
    BusinessError RemovePackage(const Name& name);
    BusinessError Pause(TaskPauseReason reason) { return Switch(TaskStatus::RUNNING, TaskStatus::PAUSED, reason); }
    BusinessError Resume() { return Switch(TaskStatus::PAUSED, TaskStatus::RUNNING, TaskPauseReason::NONE); }
    // Pauses, resumes, or drops every task.
    BusinessError Notify(const MigrationEvent& event);
    BusinessError SetPolicy(Policy policy);
    BusinessError SetPreset(const PresetChoices& choices);
    // Makes what is in the target the backup files of a user: 0, or the error number of the first package that is gone,
    // can't be read, or belongs to another user, unless root asks. Reads all of the target's directories.
    int32_t OwnBackups(uint32_t uid);

private:
    BusinessError Remove(const std::function<bool(const Task&)>& isMeant) VEXA_EXCLUDES(state_.mutex);
    // Changes from running to paused, or back.
    BusinessError Switch(TaskStatus from, TaskStatus to, TaskPauseReason reason) VEXA_EXCLUDES(state_.mutex);
    int32_t RecordOwner(uint32_t uid, const std::map<std::string, Placed>& packages) VEXA_EXCLUDES(state_.mutex);

    EngineState& state_;
};

}  // namespace VEXA::UpdateEngine
