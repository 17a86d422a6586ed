// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexa/samgr/system_ability_manager_client.h"

namespace VEXA {

// While it lives, this process finds no system-ability manager.
class UnreachableManager {
public:
    UnreachableManager() { SystemAbilityManagerClient::GetInstance().OverrideUnreachable(); }
    ~UnreachableManager() { SystemAbilityManagerClient::GetInstance().OverrideManager(nullptr); }
    UnreachableManager(const UnreachableManager&) = delete;
    UnreachableManager& operator=(const UnreachableManager&) = delete;
};

}  // namespace VEXA
