// SPDX-License-Identifier: Apache-2.0
// Modules, and what becomes of them in the migration.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "native_migrate/record_members.h"

namespace VEXA::UpdateEngine {

struct ModuleInfo {
    int32_t type = 0;
    std::string id;

    static constexpr auto Members()
    {
        return MemberList(Member{"type", &ModuleInfo::type}, Member{"id", &ModuleInfo::id});
    }
};

struct ModuleMigrationPolicy {
    ModuleInfo sourceModuleInfo;
    std::vector<ModuleInfo> targetModuleInfos;

    static constexpr auto Members()
    {
        return MemberList(Member{"sourceModuleInfo", &ModuleMigrationPolicy::sourceModuleInfo},
            Member{"targetModuleInfos", &ModuleMigrationPolicy::targetModuleInfos});
    }
};

}  // namespace VEXA::UpdateEngine
