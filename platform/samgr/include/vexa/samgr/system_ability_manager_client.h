// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vexa/base/export.h"
#include "vexa/base/mutex.h"
#include "vexa/samgr/isystem_ability_manager.h"

namespace VEXA {

// The way to the manager. One in a process; all operations may be called from any thread.
class VEXA_EXPORT SystemAbilityManagerClient {
public:
    static SystemAbilityManagerClient& GetInstance();

    // The manager, or null when it can't be reached. Connects on first use and again after the manager has died;
    // blocks only for that connection (at most a second).
    sptr<ISystemAbilityManager> GetSystemAbilityManager();

    // Makes `manager` the answer of GetSystemAbilityManager until it is replaced; null brings back the real one. For
    // tests, and for programs that bring a manager of their own.
    void OverrideManager(const sptr<ISystemAbilityManager>& manager);
    // Makes GetSystemAbilityManager answer null until OverrideManager is called.
    void OverrideUnreachable();

private:
    SystemAbilityManagerClient() = default;

    Mutex mutex_{LockRank::ManagerClient};
    sptr<ISystemAbilityManager> manager_ VEXA_GUARDED_BY(mutex_);
    sptr<ISystemAbilityManager> override_ VEXA_GUARDED_BY(mutex_);
    bool unreachable_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace VEXA
