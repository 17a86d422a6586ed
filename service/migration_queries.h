// SPDX-License-Identifier: Apache-2.0
// The operations that tell of the source, the target and the migration.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine_state.h"
#include "operation_fields.h"

namespace VEXA::UpdateEngine {

// Stages: PREPARE has the tasks that wait, DOWNLOAD those that are being copied, INSTALL those that are being put into
// place, FINISH those that have ended, RESTORE those of reserved applications, NONE all but these.
class MigrationQueries {
public:
    explicit MigrationQueries(EngineState& state) : state_(state) {}

    MigrateStatus GetStatus(MigrateStage stage) const;
    MigrateInfo GetInfo(MigrateStage stage) const;
    void GetProgress(MigrateStage& stage, MigrateProgress& progress) const;
    // Hands over the state of every task, as an event for somebody who has heard of none yet. `receive` is called as a
    // listener is, so that nothing happens between what it gets and what the listener is told next.
    void IntroduceTasks(const std::function<void(std::vector<TaskProgress>)>& receive) const;
    MigrationResult GetResult() const;
    BusinessError GetPackages(std::vector<PakMigrateInfo>& packages) const;
    BusinessError GetBundleNames(std::vector<std::string>& names) const;
    BusinessError GetUsers(std::vector<MigrationUser>& users) const;
    BusinessError GetModulePolicies(
        bool isOnlyPlaced, const std::vector<ModuleInfo>& modules, std::vector<ModuleMigrationPolicy>& policies) const;
    BusinessError GetDataSize(int64_t& bytes) const;
    BusinessError GetPackageStatus(const Name& name, ReserveMigrationStatus& status) const;

private:
    MigrateProgress Progress() const VEXA_REQUIRES(state_.mutex);
    PresetChoices Choices() const VEXA_EXCLUDES(state_.mutex);
    BusinessError ForEach(const std::function<void(const KnownPackage&)>& visit) const VEXA_EXCLUDES(state_.mutex);

    EngineState& state_;
};

}  // namespace VEXA::UpdateEngine
